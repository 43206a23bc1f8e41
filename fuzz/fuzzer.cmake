# orlo_fuzzer(name SOURCES ... [INCLUDES ...] [LINK ...] [DEFINES ...] [DEPENDS ...]
#             SEEDS dir MAX_LEN n)
#
# A libFuzzer target built with clang beside the g++ build: each source is
# compiled with AddressSanitizer, UndefinedBehaviorSanitizer and the fuzzer's
# coverage (through ccache when the build uses it), and the objects are linked
# into one program, with the sanitizer defaults of fuzz programs.  LINK takes
# libraries (paths or generator expressions), DEPENDS the targets they come
# from.  ctest runs the program for 30 s from
# the checked-in seeds; new inputs go to the build's corpus folder of the
# target.  The sanitizer build leaves it out: the fuzzer carries its own.  A
# cross build leaves it out too: it is a program of the build machine.
find_program(CLANGXX clang++)

function(orlo_fuzzer name)
  cmake_parse_arguments(F "" "SEEDS;MAX_LEN" "SOURCES;INCLUDES;LINK;DEFINES;DEPENDS" ${ARGN})
  if(NOT CLANGXX OR ORLO_SANITIZE OR CMAKE_CROSSCOMPILING)
    message(STATUS "clang++ not found, sanitizer or cross build: the fuzzer ${name} is skipped")
    return()
  endif()
  set(flags -std=c++20 -O1 -g -fsanitize=fuzzer-no-link,address,undefined
      -fno-sanitize-recover=undefined)
  list(TRANSFORM F_INCLUDES PREPEND -I OUTPUT_VARIABLE includes)
  list(TRANSFORM F_DEFINES PREPEND -D OUTPUT_VARIABLE defines)
  set(objects)
  foreach(source ${F_SOURCES} ${CMAKE_CURRENT_FUNCTION_LIST_DIR}/defaults.cc)
    string(MAKE_C_IDENTIFIER ${source} id)
    set(object ${CMAKE_CURRENT_BINARY_DIR}/${name}.dir/${id}.o)
    add_custom_command(
      OUTPUT ${object}
      COMMAND ${CMAKE_CXX_COMPILER_LAUNCHER} ${CLANGXX} ${flags} ${includes} ${defines} -MD -MF
              ${object}.d -c ${source} -o ${object}
      DEPENDS ${source}
      DEPFILE ${object}.d
      COMMENT "Compiling ${source} for the fuzzer ${name}"
      COMMAND_EXPAND_LISTS VERBATIM)
    list(APPEND objects ${object})
  endforeach()
  set(binary ${CMAKE_CURRENT_BINARY_DIR}/${name}er)
  add_custom_command(
    OUTPUT ${binary}
    COMMAND ${CLANGXX} -fsanitize=fuzzer,address,undefined ${objects} ${F_LINK}
            -Wl,-rpath,${CMAKE_BINARY_DIR}/lib -Wl,-rpath,${ORLO_PLUGIN_DIR} -lpthread
            -o ${binary}
    DEPENDS ${objects} ${F_DEPENDS}
    COMMENT "Linking the fuzzer ${name}"
    COMMAND_EXPAND_LISTS VERBATIM)
  add_custom_target(${name} ALL DEPENDS ${binary})
  set(corpus ${CMAKE_CURRENT_BINARY_DIR}/${name}_corpus)
  add_test(NAME ${name}
           COMMAND sh -c "mkdir -p '${corpus}' && exec '${binary}' -max_total_time=30 \
-max_len=${F_MAX_LEN} -timeout=60 -rss_limit_mb=2048 '${corpus}' '${F_SEEDS}'")
  set_tests_properties(${name} PROPERTIES TIMEOUT 150 ENVIRONMENT "${ORLO_TEST_ENV}")
endfunction()
