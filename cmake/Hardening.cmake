# What keeps a fault from becoming more: checked copies and formats where the compiler knows the sizes, a mark behind the
# arrays of each stack frame, tables of addresses that are for reading only once the program runs, a stack that is no
# code. On a host by default; a device pays for it in flash (docs/footprint.md) and chooses.
if(CMAKE_CROSSCOMPILING)
  option(CLOUD_HARDEN "Harden programs and libraries against faults" OFF)
else()
  option(CLOUD_HARDEN "Harden programs and libraries against faults" ON)
endif()
if(CLOUD_HARDEN)
  # The checked copies need an optimising compiler, and a distribution may have set its own level.
  add_compile_options(-fstack-protector-strong
                      $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE> $<$<NOT:$<CONFIG:Debug>>:-D_FORTIFY_SOURCE=2>)
  add_link_options(-Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)
endif()
