# Project-wide compiler settings and the small helpers every CMakeLists uses.

add_compile_options(-Wall -Wextra)

if(TAMTK_SANITIZE)
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
  if(CMAKE_CXX_COMPILER_ID STREQUAL "Clang")
    # clang links its sanitizer runtime statically into programs only, which
    # leaves every shared library (linked with --no-undefined) unresolved: use
    # the shared runtime everywhere, and find it where clang keeps it.
    execute_process(COMMAND ${CMAKE_CXX_COMPILER} -print-file-name=libclang_rt.asan-x86_64.so
                    OUTPUT_VARIABLE _asan_runtime OUTPUT_STRIP_TRAILING_WHITESPACE)
    get_filename_component(_asan_runtime_dir "${_asan_runtime}" DIRECTORY)
    add_link_options(-shared-libsan "-Wl,-rpath,${_asan_runtime_dir}")
  endif()
endif()
if(TAMTK_FUZZ)
  # Coverage feedback for libFuzzer from every library the targets reach.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()
if(TAMTK_TSAN)
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
endif()

# Gives `target` an include root of its own under the build tree, holding
# links to exactly the headers named, at their paths under the source tree
# ("Osk/Channel.h", "Agents/smtp/Spool.h"): whoever links the target sees its
# headers and no others, so a missing dependency fails to compile instead of
# working by accident.
#   tamtk_headers(target PUBLIC|INTERFACE|PRIVATE header...)
# Headers are named relative to the current source folder.
function(tamtk_headers target scope)
  set(root "${PROJECT_BINARY_DIR}/include/${target}")
  file(REMOVE_RECURSE "${root}")
  foreach(header ${ARGN})
    get_filename_component(source "${header}" ABSOLUTE BASE_DIR "${CMAKE_CURRENT_SOURCE_DIR}")
    if(NOT EXISTS "${source}")
      message(FATAL_ERROR "tamtk_headers(${target}): no header ${source}")
    endif()
    file(RELATIVE_PATH relative "${PROJECT_SOURCE_DIR}" "${source}")
    get_filename_component(folder "${root}/${relative}" DIRECTORY)
    file(MAKE_DIRECTORY "${folder}")
    file(CREATE_LINK "${source}" "${root}/${relative}" SYMBOLIC)
  endforeach()
  target_include_directories(${target} ${scope} "$<BUILD_INTERFACE:${root}>")
endfunction()

# A loadable module that exports exactly the C symbols named in EXPORTS.
function(tamtk_plugin target)
  cmake_parse_arguments(P "" "" "SOURCES;EXPORTS;LIBS" ${ARGN})
  add_library(${target} MODULE ${P_SOURCES})
  set(map "${CMAKE_CURRENT_BINARY_DIR}/${target}.map")
  list(JOIN P_EXPORTS "; " syms)
  file(WRITE "${map}" "{\n  global: ${syms};\n  local: *;\n};\n")
  target_link_options(${target} PRIVATE "-Wl,--version-script=${map}" "-Wl,--no-undefined")
  # Installed beside the toolkit and osk, where the loader looks for plug-ins.
  set_target_properties(${target} PROPERTIES PREFIX "lib" LINK_DEPENDS "${map}"
                                             INSTALL_RPATH "$ORIGIN")
  target_link_libraries(${target} PRIVATE ${P_LIBS})
endfunction()

# A GoogleTest executable registered with CTest.
function(tamtk_gtest target)
  cmake_parse_arguments(T "" "" "SOURCES;LIBS" ${ARGN})
  add_executable(${target} ${T_SOURCES})
  target_link_libraries(${target} PRIVATE ${T_LIBS} GTest::gtest GTest::gtest_main)
  target_include_directories(${target} PRIVATE ${PROJECT_SOURCE_DIR}/tests)
  gtest_discover_tests(${target} DISCOVERY_TIMEOUT 60
                       PROPERTIES ENVIRONMENT "TAMTK_BUILD_DIR=${PROJECT_BINARY_DIR}")
endfunction()
