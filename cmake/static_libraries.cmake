# Libraries that are linked statically where the system has them so: a guest need not install them,
# and the agent does not change its behaviour with theirs.

# Makes target `name` out of the static library `file`, or of the shared one where there is none.
function(corvane_find_static_library name file header)
    find_library(${name}_LIBRARY NAMES lib${file}.a ${file} REQUIRED)
    find_path(${name}_INCLUDE_DIR NAMES ${header} REQUIRED)
    mark_as_advanced(${name}_LIBRARY ${name}_INCLUDE_DIR)
    add_library(${name} INTERFACE IMPORTED GLOBAL)
    target_include_directories(${name} SYSTEM INTERFACE ${${name}_INCLUDE_DIR})
    target_link_libraries(${name} INTERFACE ${${name}_LIBRARY})
endfunction()

corvane_find_static_library(corvane_boost_json boost_json boost/json.hpp)
corvane_find_static_library(corvane_boost_url boost_url boost/url.hpp)
corvane_find_static_library(corvane_sodium sodium sodium.h)
corvane_find_static_library(corvane_xxhash xxhash xxhash.h)
