# One set of warnings and hardening options for every target of the project.
add_compile_options(-Wall -Wextra -Werror -Wshadow -Wnon-virtual-dtor -Wundef -Wcast-qual -fstack-protector-strong)
if(CMAKE_CXX_COMPILER_ID STREQUAL "GNU" AND CMAKE_CXX_COMPILER_VERSION VERSION_LESS 13)
    # GCC 12 sees an overlap in every `"text" + std::string` that it inlines (GCC bug 105651).
    add_compile_options(-Wno-restrict)
endif()
add_compile_definitions(_FILE_OFFSET_BITS=64)
if(NOT APPLE)
    add_compile_definitions(_GNU_SOURCE)
    add_link_options(-Wl,-z,relro,-z,now)
endif()
if(QUILLVANE_SANITIZE)
    add_compile_options(-fsanitize=${QUILLVANE_SANITIZE} -fno-omit-frame-pointer -fno-sanitize-recover=all)
    add_link_options(-fsanitize=${QUILLVANE_SANITIZE})
elseif(CMAKE_BUILD_TYPE STREQUAL "Release")
    add_compile_definitions(_FORTIFY_SOURCE=2)
endif()

# quillvane_precompile(TARGET header…): reads the headers that most of a target's sources include
# once, in builds under a sanitizer alone: the dev build shows which includes a source lacks.
function(quillvane_precompile target)
    if(QUILLVANE_SANITIZE)
        target_precompile_headers(${target} PRIVATE ${ARGN})
    endif()
endfunction()
