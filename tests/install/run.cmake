# Installs the project into a fresh prefix, builds and installs the agent of
# consumer/ against it with find_package(osk), and runs the installed
# osk-host, with its default channel, over the example events.
#   cmake -DBUILD_DIR=<build tree> -DWORK_DIR=<scratch> -DEXAMPLES_DIR=<examples> -P run.cmake
set(prefix ${WORK_DIR}/prefix)
file(REMOVE_RECURSE ${WORK_DIR})

function(_run)
  execute_process(COMMAND ${ARGN} RESULT_VARIABLE rc OUTPUT_VARIABLE out ERROR_VARIABLE out)
  if(NOT rc EQUAL 0)
    message(FATAL_ERROR "${ARGN}\nexited with ${rc}:\n${out}")
  endif()
  set(_output "${out}" PARENT_SCOPE)
endfunction()

_run(${CMAKE_COMMAND} --install ${BUILD_DIR} --prefix ${prefix})
_run(${CMAKE_COMMAND} -S ${CMAKE_CURRENT_LIST_DIR}/consumer -B ${WORK_DIR}/build
     -DCMAKE_PREFIX_PATH=${prefix} -DCMAKE_BUILD_TYPE=Release)
_run(${CMAKE_COMMAND} --build ${WORK_DIR}/build)
_run(${CMAKE_COMMAND} --install ${WORK_DIR}/build)

# The example configuration, delivering through the new agent by file name.
file(READ ${EXAMPLES_DIR}/alerts.xml config)
string(REGEX REPLACE "<EmailAgent.*</EmailAgent>"
       "<EmailAgent lib=\"libfile_agent.so\"><Param name=\"path\" value=\"${WORK_DIR}/mails\"/></EmailAgent>"
       config "${config}")
file(WRITE ${WORK_DIR}/alerts.xml "${config}")
_run(${prefix}/bin/osk-host --check --config ${WORK_DIR}/alerts.xml)
_run(${prefix}/bin/osk-host --config ${WORK_DIR}/alerts.xml --events ${EXAMPLES_DIR}/events.xml)
message(STATUS "${_output}")

# Three of the four example events belong to an enabled group.
file(READ ${WORK_DIR}/mails mails)
string(REGEX MATCHALL "\nFrom [^\n]*" envelopes "\n${mails}")
string(REGEX MATCHALL "\nSubject: " subjects "\n${mails}")
list(LENGTH envelopes sent)
list(LENGTH subjects headed)
if(NOT sent EQUAL 3 OR NOT headed EQUAL 3 OR NOT _output MATCHES "lost alerts: 0")
  message(FATAL_ERROR "expected 3 mails and no lost alert, osk-host said:\n${_output}\nthe agent got:\n${mails}")
endif()
