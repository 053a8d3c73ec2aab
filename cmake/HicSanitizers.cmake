# One sanitizer configuration per build tree, applied to every target in it.
if(HIC_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all
                      -fno-omit-frame-pointer -O1 -g)
  add_link_options(-fsanitize=address,undefined)
elseif(HIC_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer -O1 -g)
  add_link_options(-fsanitize=thread)
elseif(NOT HIC_SANITIZE STREQUAL "")
  message(FATAL_ERROR "HIC_SANITIZE must be empty, 'address' or 'thread'")
endif()
