// Handler library for the configuration tests: factories that work, that
// give null, that give no destroy function, and objects whose init fails
// on demand. Everything that happens is reported to test_state().
#include "test_state.h"

#include "json_rpc/json_restful.h"
#include "json_rpc/json_rpc_channel.h"
#include "json_rpc/json_rpc_handler.h"
#include "json_rpc/json_rpc_params_filter.h"

#include <cerrno>

#define TEST_FACTORY extern "C" __attribute__((visibility("default")))

namespace
{
  // The first word of params names the object; "fail" makes init fail.
  std::string tag_of(int argc, char** argv) { return argc > 0 && argv ? argv[0] : ""; }

  int init_tagged(std::string& tag, int argc, char** argv)
  {
    tag = tag_of(argc, argv);
    test_state().record_init(argc, argv);
    if (tag == "fail")
    {
      errno = EINVAL;
      return -1;
    }
    return 0;
  }

  // Answers every request with its tag.
  struct Tagged : JSON_RPC_Handler
  {
    ~Tagged() override { ++test_state().deleted; }
    int init(int argc, char** argv) override { return init_tagged(tag_, argc, argv); }
    int handle_object(JSON_RPC_Channel_Weak_Ptr channel, JSON_RPC_Object_Ptr object) override
    {
      JSON_RPC_Channel_Strong_Ptr peer(channel);
      if (peer.null())
        return -1;
      JSON_RPC_Response* response = new JSON_RPC_Response(static_cast<JSON_RPC_Request*>(object.get()));
      response->result = json_spirit::Value(tag_);
      return peer->send_object(JSON_RPC_Object_Ptr(response));
    }

    std::string tag_;
  };

  struct Tagged_Creator : JSON_RPC_Params_Handler_Creator
  {
    ~Tagged_Creator() override { ++test_state().deleted; }
    int init(int argc, char** argv) override { return init_tagged(tag_, argc, argv); }
    YAJL_Handler* create(JSON_RPC_Channel_Weak_Ptr, JSON_RPC_Object_Ptr) override { return nullptr; }

    std::string tag_;
  };

  struct Rest_Creator : Object_Creator_T<JSON_RESTful_Handler>
  {
    ~Rest_Creator() override { ++test_state().deleted; }
    int init(int count, char** args) override
    {
      std::string tag;
      if (init_tagged(tag, count, args) == -1)
        return -1;
      return Object_Creator_T<JSON_RESTful_Handler>::init(count, args);
    }
    JSON_RESTful_Handler* create() override { return nullptr; }
    void destroy(JSON_RESTful_Handler*) override {}
  };

  template <class T, class B>
  B* make(void (**destroy)(void*))
  {
    if (destroy)
      *destroy = [](void* p) {
        ++test_state().destroyed;
        delete static_cast<B*>(p);
      };
    return new T;
  }
}

// ACE keeps a library loaded after its last reference if it finds this
// function lazy, and without one here it would find ACE's own. Unloading
// at once lets the tests see every reference that was left open.
TEST_FACTORY int _get_dll_unload_policy() { return ACE_DLL_UNLOAD_POLICY_PER_DLL; }

TEST_FACTORY JSON_RPC_Handler* make_tagged(void (**destroy)(void*)) { return make<Tagged, JSON_RPC_Handler>(destroy); }

TEST_FACTORY JSON_RPC_Handler* make_tagged_no_destroy(void (**)(void*)) { return new Tagged; }

TEST_FACTORY JSON_RPC_Handler* make_nothing(void (**)(void*))
{
  errno = ENOENT;
  return nullptr;
}

TEST_FACTORY JSON_RPC_Params_Handler_Creator* make_filter_creator(void (**destroy)(void*))
{
  return make<Tagged_Creator, JSON_RPC_Params_Handler_Creator>(destroy);
}

TEST_FACTORY Object_Creator_T<JSON_RESTful_Handler>* make_rest_creator(void (**destroy)(void*))
{
  return make<Rest_Creator, Object_Creator_T<JSON_RESTful_Handler>>(destroy);
}
