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

# The tests and the rig's tools are two thirds of a sanitizer tree's build
# time, most of it spent on template code: they get line tables only
# (enough for the reports) and, under ASan, no optimisation; under TSan the
# unit tables run three times slower unoptimised, so they keep -O1. The
# daemon keeps -O1 and full debug information. Added in their directories.
set(HIC_TEST_CODE_OPTIONS "")
if(HIC_SANITIZE STREQUAL "address")
  set(HIC_TEST_CODE_OPTIONS -O0 -g1)
elseif(HIC_SANITIZE STREQUAL "thread")
  set(HIC_TEST_CODE_OPTIONS -g1)
endif()
