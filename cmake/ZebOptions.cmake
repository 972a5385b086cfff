# Two interface targets carry the flags: zeb_warnings for every target of ours, zeb_hardening for what ships.
find_package(Threads REQUIRED)

# Files and times are as wide as anywhere where the machine's words are narrow: for everything, as a time stands in
# headers of ours.
if(CMAKE_SIZEOF_VOID_P EQUAL 4)
  add_compile_definitions(_FILE_OFFSET_BITS=64 _TIME_BITS=64)
endif()

add_library(zeb_warnings INTERFACE)
target_compile_options(zeb_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wvla -Wpointer-arith -Wcast-align
  $<$<COMPILE_LANGUAGE:CXX>:-Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<BOOL:${ZEB_WERROR}>:-Werror>)

add_library(zeb_hardening INTERFACE)
target_compile_options(zeb_hardening INTERFACE
  -fstack-protector-strong -fstack-clash-protection)
if(NOT ZEB_SANITIZE) # a list of sanitizers holds a comma, so this cannot be part of the expression
  target_compile_options(zeb_hardening INTERFACE $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
target_link_options(zeb_hardening INTERFACE -Wl,-z,relro -Wl,-z,now -Wl,-z,noexecstack)

if(ZEB_SANITIZE)
  add_compile_options(-fsanitize=${ZEB_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  # clang's check of calls through pointers reports in the C++ run-time, which a program in C is not linked with.
  add_compile_options($<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
  add_link_options($<$<CXX_COMPILER_ID:Clang>:-fno-sanitize=function>)
  add_link_options(-fsanitize=${ZEB_SANITIZE})
endif()
