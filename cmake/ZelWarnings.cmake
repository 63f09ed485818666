# Warnings for the project's own targets (not for third-party code built alongside).
add_compile_options(-Wall -Wextra)
if(ZEL_WERROR)
  add_compile_options(-Werror)
endif()
