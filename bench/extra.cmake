# Email agents: needs the agents' cores and the SMTP test server of the tests' support.
add_executable(agents_bench agents/agents_bench.cpp)
target_link_libraries(agents_bench PRIVATE test_support email_agent_smtp_core
                      email_agent_maildir_core email_agent_digest_core benchmark::benchmark)

# Message composition and the channel's event pipeline: need the channel's
# objects; the pipeline and the digest bind the tests' stand-in agent, set to
# count only.
add_executable(compose_bench channel/compose_bench.cpp)
target_link_libraries(compose_bench PRIVATE email_channel_objs benchmark::benchmark)

add_executable(pipeline_bench channel/pipeline_bench.cpp)
target_link_libraries(pipeline_bench PRIVATE email_channel_objs PkgConfig::LIBXSLT
                      benchmark::benchmark ${CMAKE_DL_LIBS})
foreach(bench pipeline_bench agents_bench)
  target_compile_definitions(${bench} PRIVATE FAKE_AGENT_PATH="$<TARGET_FILE:fake_agent>")
  add_dependencies(${bench} fake_agent)
endforeach()
