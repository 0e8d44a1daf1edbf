# Compiler flags shared by every target of the project.
add_compile_options(-Wall -Wextra -Wpedantic)
if(TELLAR_WERROR)
  add_compile_options(-Werror)
endif()

if(TELLAR_SANITIZE STREQUAL "address")
  add_compile_options(-fsanitize=address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
elseif(TELLAR_SANITIZE STREQUAL "thread")
  add_compile_options(-fsanitize=thread -fno-omit-frame-pointer)
  add_link_options(-fsanitize=thread)
elseif(NOT TELLAR_SANITIZE STREQUAL "")
  message(FATAL_ERROR "TELLAR_SANITIZE must be empty, 'address' or 'thread'")
endif()

# Fuzzing: coverage for libFuzzer plus ASan and UBSan in every target; the fuzz targets add the
# libFuzzer driver themselves.
if(TELLAR_FUZZ)
  if(NOT TELLAR_SANITIZE STREQUAL "")
    message(FATAL_ERROR "TELLAR_FUZZ brings its own sanitizers: leave TELLAR_SANITIZE empty")
  endif()
  add_compile_options(-fsanitize=fuzzer-no-link,address,undefined -fno-sanitize-recover=all -fno-omit-frame-pointer)
  add_link_options(-fsanitize=address,undefined -fno-sanitize-recover=all)
endif()
