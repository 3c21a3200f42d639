# Warnings, sanitizers and the paths that compiled files remember, for every target of the project.

add_compile_options(-Wall -Wextra -Wpedantic -Wshadow -fno-math-errno)
if(PROJECT_IS_TOP_LEVEL)
  # Not in a host's build: its compiler may know warnings that ours does not.
  add_compile_options(-Werror)
endif()
add_compile_options($<$<COMPILE_LANGUAGE:CXX>:-Wconversion>)
# Invariant texts name their source file: from the project's root on.
add_compile_options(-ffile-prefix-map=${PROJECT_SOURCE_DIR}/=)

if(ZON_CHECK_LOCK_ORDER)
  add_compile_definitions(ZON_CHECK_LOCK_ORDER VEM_CHECK_LOCK_ORDER)
endif()

if(ZON_SANITIZE)
  add_compile_options(-fsanitize=${ZON_SANITIZE} -fno-omit-frame-pointer)
  add_link_options(-fsanitize=${ZON_SANITIZE})
  # In instrumented code gcc 12 suspects the standard library's regular expressions and strings.
  add_compile_options($<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-array-bounds>
                      $<$<CXX_COMPILER_ID:GNU>:-Wno-stringop-overflow>)
  if(ZON_SANITIZE MATCHES "undefined")
    add_compile_options(-fno-sanitize-recover=undefined)
  endif()
endif()

if(ZON_FUZZ)
  # Everything reports its coverage; only the fuzzers link the driver.
  add_compile_options(-fsanitize=fuzzer-no-link)
endif()

if(ZON_COVERAGE)
  add_compile_options(-fprofile-instr-generate -fcoverage-mapping)
  add_link_options(-fprofile-instr-generate)
endif()

find_package(Threads REQUIRED)

# For the folder that calls it. The tests' own code is compiled twice as fast this way; the engine's keeps
# its optimization, what a debugger wants, and the checks for undefined behaviour.
macro(zon_compile_as_test_code)
  add_compile_options(-g1)
  if(ZON_SANITIZE)
    add_compile_options(-O0)
    if(ZON_SANITIZE MATCHES "undefined")
      add_compile_options(-fno-sanitize=undefined)
    endif()
  endif()
endmacro()
