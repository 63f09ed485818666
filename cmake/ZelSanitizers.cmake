# ZEL_SANITIZE applies one sanitizer set to every target of the build.
if(ZEL_SANITIZE)
  add_compile_options(-fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
  add_link_options(-fsanitize=${ZEL_SANITIZE})
endif()
