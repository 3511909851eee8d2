# Warnings, hardening and sanitizers of our own code, as one interface target.
add_library(zel_options INTERFACE)
target_compile_options(zel_options INTERFACE
  -Wall -Wextra -Wshadow
  $<$<COMPILE_LANGUAGE:CXX>:-Wconversion -Wno-sign-conversion -Wnon-virtual-dtor -Woverloaded-virtual>
  $<$<CXX_COMPILER_ID:Clang>:-Wthread-safety>)
if(ZEL_WERROR)
  target_compile_options(zel_options INTERFACE -Werror)
endif()

add_library(zel_sanitize INTERFACE)
if(ZEL_SANITIZE)
  target_compile_options(zel_sanitize INTERFACE
    -fsanitize=${ZEL_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all -g)
  target_link_options(zel_sanitize INTERFACE -fsanitize=${ZEL_SANITIZE})
endif()

# tests/host/hardening_test.py looks for these in the built files.
add_library(zel_hardening INTERFACE)
if(NOT ZEL_SANITIZE)
  target_compile_options(zel_hardening INTERFACE -fstack-protector-strong
    $<$<NOT:$<CONFIG:Debug>>:-U_FORTIFY_SOURCE -D_FORTIFY_SOURCE=2>)
endif()
target_link_options(zel_hardening INTERFACE -Wl,-z,relro -Wl,-z,now)
target_link_libraries(zel_options INTERFACE zel_sanitize zel_hardening)
