# json_rpc_library(<name> <EXPORT_MACRO_PREFIX> SOURCES ... HEADERS ... LINK ...)
function(json_rpc_library name)
  cmake_parse_arguments(L "" "" "SOURCES;HEADERS;LINK" ${ARGN})
  add_library(${name} SHARED ${L_SOURCES})
  string(TOUPPER ${name} upper)
  target_compile_definitions(${name} PRIVATE ${upper}_BUILDING)
  target_include_directories(${name} PUBLIC
    $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>
    $<INSTALL_INTERFACE:${CMAKE_INSTALL_INCLUDEDIR}>)
  target_link_libraries(${name} PUBLIC ${L_LINK})
  set_target_properties(${name} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}.${PROJECT_VERSION_MINOR}
    # Installed, the libraries find each other wherever the prefix is.
    INSTALL_RPATH "$ORIGIN")
  install(TARGETS ${name} EXPORT json_rpcTargets
    LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
    RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})
  install(FILES ${L_HEADERS} DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/${name})
endfunction()
