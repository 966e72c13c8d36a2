# Every target of the project links gantrel_options: warnings are errors, and sanitizers apply to all or none.
add_library(gantrel_options INTERFACE)
target_compile_options(gantrel_options INTERFACE
  -Wall -Wextra -Wpedantic -Wshadow -Wconversion -Werror)
target_include_directories(gantrel_options INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
if(GANTREL_SANITIZE)
  target_compile_options(gantrel_options INTERFACE
    -fsanitize=${GANTREL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # GCC 12 takes the sanitizers' own instrumentation of std::variant for a use before initialisation.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(gantrel_options INTERFACE -fsanitize=${GANTREL_SANITIZE})
endif()
