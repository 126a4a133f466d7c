# quorvel-mcp: the MCP server, a second executable beside the bridge, which
# it runs as a child process. It shares no code with the core but the
# Unicode helpers; POSIX only.
add_library(quorvel_mcp STATIC
  src/mcp/bridge_runner.cpp
  src/mcp/server.cpp
  src/mcp/text_view.cpp
  src/mcp/tools.cpp
)
target_include_directories(quorvel_mcp PUBLIC src)
target_link_libraries(quorvel_mcp PUBLIC nlohmann_json::nlohmann_json PRIVATE quorvel_unicode)
target_compile_definitions(quorvel_mcp PRIVATE QUORVEL_VERSION="${PROJECT_VERSION}")

add_executable(quorvel-mcp src/mcp/main.cpp)
target_link_libraries(quorvel-mcp PRIVATE quorvel_mcp)
