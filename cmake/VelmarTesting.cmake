# velmar_add_gtest(NAME SOURCES src... LIBS lib... [LABELS l...])
# One GoogleTest executable, its tests registered with CTest one by one.
function(velmar_add_gtest name)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS;LABELS" ${ARGN})
  add_executable(${name} ${T_SOURCES})
  target_compile_options(${name} PRIVATE ${VELMAR_WARNINGS})
  target_link_libraries(${name} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main GTest::gmock Threads::Threads)
  set(_labels unit)
  if(T_LABELS)
    set(_labels ${T_LABELS})
  endif()
  gtest_discover_tests(${name} DISCOVERY_MODE PRE_TEST DISCOVERY_TIMEOUT 60 PROPERTIES LABELS "${_labels}")
endfunction()

# velmar_add_pytest(NAME FILE LABELS [TIMEOUT seconds] [ARGS arg...] [PROPERTIES prop value...])
# A Python test run from the declaring folder with VELMAR_PY_ENV: `python3 -m unittest -v
# FILE`, or `python3 FILE ARGS...` when ARGS are given. LABELS is one label or a ;-list;
# the timeout defaults to 300 s (a bare number after LABELS is taken as the timeout too).
#
# The one environment of every Python test: where the built programs are, the trees, the
# build's facts, and the shared harness (tests/agent) on the module path. Python is
# /usr/bin/python3, to which Debian's python packages (pysnmp) belong. (Made at each call:
# the Debian revision is known only once packaging/ is read.)
function(velmar_add_pytest name file labels)
  set(VELMAR_PY_ENV
    VELMAR_AGENT=$<TARGET_FILE:velmar-snmp-agent>
    VELMAR_TEST_HOST=$<TARGET_FILE:velmar-test-host>
    VELMAR_MODULE=$<TARGET_FILE:VelmarDaemonMIB>
    VELMAR_DLMOD=$<TARGET_FILE:velmar_daemon_mib_dlmod>
    VELMAR_SUPERVISOR_EVENTS=$<TARGET_FILE:velmar-supervisor-events>
    VELMAR_PROTOCOL_FUZZ=$<TARGET_FILE:velmar-protocol-fuzz>
    VELMAR_SOURCE_DIR=${CMAKE_SOURCE_DIR}
    VELMAR_BUILD_DIR=${CMAKE_BINARY_DIR}
    VELMAR_CMAKE=${CMAKE_COMMAND}
    VELMAR_VERSION=${PROJECT_VERSION}
    VELMAR_DEBIAN_REVISION=${VELMAR_DEBIAN_REVISION}
    VELMAR_ENTERPRISE_NUMBER=${VELMAR_ENTERPRISE_NUMBER}
    VELMAR_MAN_PAGE=${CMAKE_BINARY_DIR}/packaging/velmar-snmp-agent.1
    PYTHONPATH=${CMAKE_SOURCE_DIR}/tests/agent
    PYTHONDONTWRITEBYTECODE=1)
  set(rest ${ARGN})
  set(timeout 300)
  if(rest)
    list(GET rest 0 first)
    if(first MATCHES "^[0-9]+$")
      set(timeout ${first})
      list(REMOVE_AT rest 0)
    endif()
  endif()
  cmake_parse_arguments(P "" "TIMEOUT" "ARGS;PROPERTIES" ${rest})
  if(P_TIMEOUT)
    set(timeout ${P_TIMEOUT})
  endif()
  if(P_ARGS)
    set(command /usr/bin/python3 ${CMAKE_CURRENT_SOURCE_DIR}/${file} ${P_ARGS})
  else()
    set(command /usr/bin/python3 -m unittest -v ${file})
  endif()
  add_test(NAME ${name} COMMAND ${command} WORKING_DIRECTORY ${CMAKE_CURRENT_SOURCE_DIR})
  set_tests_properties(${name} PROPERTIES LABELS "${labels}" TIMEOUT ${timeout} ENVIRONMENT "${VELMAR_PY_ENV}"
                       ${P_PROPERTIES})
endfunction()
