// Echo server of the server benchmark: sourcegraph/jsonrpc2 with
// Content-Length framing (VSCodeObjectCodec), answering "echo" with its
// params. Prints "listening on HOST:PORT" once it listens.
//
//	go_echo [-listen 127.0.0.1:0]
package main

import (
	"context"
	"encoding/json"
	"flag"
	"fmt"
	"net"
	"os"
	"time"

	"github.com/sourcegraph/jsonrpc2"
)

type echo struct{}

func (echo) Handle(ctx context.Context, conn *jsonrpc2.Conn, req *jsonrpc2.Request) {
	if req.Notif {
		return
	}
	if req.Method != "echo" {
		conn.ReplyWithError(ctx, req.ID, &jsonrpc2.Error{Code: jsonrpc2.CodeMethodNotFound, Message: "method not found"})
		return
	}
	params := json.RawMessage("null")
	if req.Params != nil {
		params = *req.Params
	}
	conn.Reply(ctx, req.ID, params)
}

func main() {
	listen := flag.String("listen", "127.0.0.1:0", "address to listen on")
	flag.Parse()
	l, err := net.Listen("tcp", *listen)
	if err != nil {
		fmt.Fprintln(os.Stderr, "go_echo:", err)
		os.Exit(1)
	}
	fmt.Printf("listening on %s\n", l.Addr().String())
	ctx := context.Background()
	for {
		c, err := l.Accept()
		if err != nil {
			// Out of descriptors, say: rest a moment rather than spin.
			fmt.Fprintln(os.Stderr, "go_echo: accept:", err)
			time.Sleep(10 * time.Millisecond)
			continue
		}
		jsonrpc2.NewConn(ctx, jsonrpc2.NewBufferedStream(c, jsonrpc2.VSCodeObjectCodec{}), echo{})
	}
}
