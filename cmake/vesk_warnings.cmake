# Warnings are errors everywhere; source paths in assertion messages are relative to the
# project, so a report names "core/vesk_utility_mem_account.cpp", not the build machine's tree.
function(vesk_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/=)
endfunction()
