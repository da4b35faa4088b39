# Warnings are errors everywhere; source paths in assertion messages are relative to the
# project, so a report names "core/vesk_utility_mem_account.cpp", not the build machine's tree.
# ccache with a base_dir hands the compiler paths relative to the target's build folder
# ("../../core/..."), so that form is mapped too.
function(vesk_warnings target)
  get_target_property(bin_dir ${target} BINARY_DIR)
  file(RELATIVE_PATH up ${bin_dir} ${PROJECT_SOURCE_DIR}/)
  string(REGEX REPLACE "/+$" "" up "${up}")
  target_compile_options(${target} PRIVATE -Wall -Wextra -Werror
    -fmacro-prefix-map=${PROJECT_SOURCE_DIR}/= -fmacro-prefix-map=${up}/=)
endfunction()
