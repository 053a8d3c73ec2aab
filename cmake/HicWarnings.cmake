# Warning set shared by every target of the project.
add_library(hic_warnings INTERFACE)
target_compile_options(hic_warnings INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wformat=2 -Wcast-qual
  -Wnon-virtual-dtor -Wold-style-cast -Wundef -Wvla
  $<$<BOOL:${HIC_WERROR}>:-Werror>)

# Daemon code: no exceptions, no RTTI.
add_library(hic_daemon_flags INTERFACE)
target_compile_options(hic_daemon_flags INTERFACE -fno-exceptions -fno-rtti)
target_link_libraries(hic_daemon_flags INTERFACE hic_warnings)
