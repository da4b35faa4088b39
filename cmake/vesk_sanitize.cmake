# Checked builds: -DVESK_SANITIZE=address,undefined or -DVESK_SANITIZE=thread instruments the
# library, the tests and the tools alike (compile and link flags for every target below).
# UBSan halts on the first report so that CI cannot pass over one. Runtime options and the
# suppression files live in scripts/sanitize/ and are applied by scripts/test-sanitize.sh.
set(VESK_SANITIZE "" CACHE STRING "Sanitizers to build with: empty, address,undefined, or thread")
set_property(CACHE VESK_SANITIZE PROPERTY STRINGS "" "address,undefined" "thread")

if(VESK_SANITIZE STREQUAL "address,undefined")
  set(vesk_sanitize_flags -fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(VESK_SANITIZE STREQUAL "thread")
  set(vesk_sanitize_flags -fsanitize=thread)
elseif(NOT VESK_SANITIZE STREQUAL "")
  message(FATAL_ERROR "VESK_SANITIZE must be empty, 'address,undefined' or 'thread', not '${VESK_SANITIZE}'")
endif()

if(vesk_sanitize_flags)
  # Frame pointers give whole stacks in reports; -O1 keeps the instrumented tests quick
  # without inlining away the frames that a report names.
  add_compile_options(${vesk_sanitize_flags} -fno-omit-frame-pointer -g -O1)
  # GCC 12's flow analysis under the sanitizers' instrumentation reports uninitialised members
  # inside libstdc++'s own <regex> and <functional> (used by the tests); the plain builds keep
  # the warning as an error for our code.
  if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU")
    add_compile_options(-Wno-error=maybe-uninitialized)
  endif()
  # GCC links the runtime into the shared library too, so -Wl,--no-undefined still holds.
  add_link_options(${vesk_sanitize_flags})
endif()
