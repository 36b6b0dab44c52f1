# Options that every target of this project compiles with; targets take them by linking
# dm_compile_options.

add_library(dm_compile_options INTERFACE)

target_compile_options(dm_compile_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion
  # Log lines and debug information show a source path relative to the repository, whatever the
  # build directory is.
  -ffile-prefix-map=${PROJECT_SOURCE_DIR}/=
  -ffile-prefix-map=${PROJECT_BINARY_DIR}=.)

if(DM_WERROR)
  target_compile_options(dm_compile_options INTERFACE -Werror)
endif()

if(DM_SANITIZE)
  target_compile_options(dm_compile_options INTERFACE
    -fsanitize=${DM_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer)
  target_link_options(dm_compile_options INTERFACE -fsanitize=${DM_SANITIZE})
endif()
