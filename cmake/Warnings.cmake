# Every target of the project links gantrel_options, so that sanitizers apply to all or none. Warnings are errors
# where CMAKE_COMPILE_WARNING_AS_ERROR says so, as the presets do: another compiler's new warning stops nobody else.
add_library(gantrel_options INTERFACE)
target_compile_options(gantrel_options INTERFACE -Wall -Wextra -Wpedantic -Wshadow -Wconversion)
target_include_directories(gantrel_options INTERFACE
  $<BUILD_INTERFACE:${PROJECT_SOURCE_DIR}>)
if(GANTREL_SANITIZE)
  target_compile_options(gantrel_options INTERFACE
    -fsanitize=${GANTREL_SANITIZE} -fno-sanitize-recover=all -fno-omit-frame-pointer
    # GCC 12 takes the sanitizers' own instrumentation of std::variant for a use before initialisation.
    $<$<CXX_COMPILER_ID:GNU>:-Wno-maybe-uninitialized>)
  target_link_options(gantrel_options INTERFACE -fsanitize=${GANTREL_SANITIZE})
endif()
