# Every target links this: warnings that found real faults, as errors.
add_library(backup2_warnings INTERFACE)
target_compile_options(backup2_warnings INTERFACE
  -Wall -Wextra -Wshadow -Wconversion -Wnon-virtual-dtor -Wformat=2 -Wsuggest-override
  -Wimplicit-fallthrough -Werror)
target_include_directories(backup2_warnings INTERFACE ${PROJECT_SOURCE_DIR})
