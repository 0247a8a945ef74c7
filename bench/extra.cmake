# Email agents: needs the agents' cores and the SMTP test server of tests/Agents.
add_executable(agents_bench agents/agents_bench.cpp
               ${PROJECT_SOURCE_DIR}/tests/Agents/AgentTestSupport.cpp)
target_compile_definitions(agents_bench PRIVATE
  AGENTS_TEST_SERVER="${PROJECT_SOURCE_DIR}/tests/Agents/smtp_server.py")
target_include_directories(agents_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/Agents)
target_link_libraries(agents_bench PRIVATE
  email_agent_smtp_core email_agent_maildir_core benchmark::benchmark)

# Message composition and the channel's event pipeline: need the channel's
# objects; the pipeline binds an agent that only counts.
add_library(count_agent MODULE channel/count_agent.cpp)
target_link_libraries(count_agent PRIVATE agent_api tamtk)

add_executable(compose_bench channel/compose_bench.cpp)
target_link_libraries(compose_bench PRIVATE email_channel_objs benchmark::benchmark)

add_executable(pipeline_bench channel/pipeline_bench.cpp)
target_link_libraries(pipeline_bench PRIVATE email_channel_objs PkgConfig::LIBXSLT
                      benchmark::benchmark ${CMAKE_DL_LIBS})
target_compile_definitions(pipeline_bench PRIVATE COUNT_AGENT_PATH="$<TARGET_FILE:count_agent>")
add_dependencies(pipeline_bench count_agent)

# The digest agent's cost per held mail, with an inner agent that only counts.
target_link_libraries(agents_bench PRIVATE email_agent_digest_core)
target_compile_definitions(agents_bench PRIVATE COUNT_AGENT_PATH="$<TARGET_FILE:count_agent>")
add_dependencies(agents_bench count_agent)
