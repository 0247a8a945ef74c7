# Email agents: needs the agents' cores and the SMTP test server of tests/Agents.
add_executable(agents_bench agents/agents_bench.cpp
               ${PROJECT_SOURCE_DIR}/tests/Agents/AgentTestSupport.cpp)
target_compile_definitions(agents_bench PRIVATE
  AGENTS_TEST_SERVER="${PROJECT_SOURCE_DIR}/tests/Agents/smtp_server.py")
target_include_directories(agents_bench PRIVATE ${PROJECT_SOURCE_DIR}/tests/Agents)
target_link_libraries(agents_bench PRIVATE
  email_agent_smtp_core email_agent_maildir_core benchmark::benchmark)
