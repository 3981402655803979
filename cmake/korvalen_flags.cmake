# Warnings for our own targets, and the sanitizer builds.
function(korvalen_warnings target)
  target_compile_options(${target} PRIVATE -Wall -Wextra -Wformat=2 -Wno-format-nonliteral)
endfunction()

if(KORVALEN_FUZZ)
  # Coverage for the whole library; the fuzzer targets add the driver.
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined)
elseif(KORVALEN_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-omit-frame-pointer -fno-sanitize-recover=undefined)
  add_link_options(-fsanitize=address,undefined)
elseif(KORVALEN_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT KORVALEN_SANITIZE STREQUAL "")
  message(FATAL_ERROR "KORVALEN_SANITIZE must be empty, 'address' or 'thread'")
endif()
