# Release builds of a root daemon carry the usual hardening: fortified libc
# calls, stack protector and stack-clash probes, a position-independent
# executable and a read-only relocation table resolved at start. Sanitizer
# trees go without (their runtimes bring their own checks), and flags a
# packager already passes (dpkg-buildflags) are not given twice.
set(HIC_RELEASE_TYPES Release RelWithDebInfo MinSizeRel)
if(HIC_SANITIZE STREQUAL "" AND CMAKE_BUILD_TYPE IN_LIST HIC_RELEASE_TYPES)
  if(NOT "${CMAKE_CXX_FLAGS} ${CMAKE_C_FLAGS}" MATCHES "_FORTIFY_SOURCE")
    add_compile_definitions(_FORTIFY_SOURCE=2)
  endif()
  add_compile_options(-fstack-protector-strong -fstack-clash-protection)
  include(CheckPIESupported)
  check_pie_supported()
  set(CMAKE_POSITION_INDEPENDENT_CODE ON)
  add_link_options(-Wl,-z,relro,-z,now)
endif()
