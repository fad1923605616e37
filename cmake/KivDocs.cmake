# The API reference, target `docs`: Doxygen over every public header the project installs (the HEADERS file
# sets of its targets, whichever folder adds them), with docs/api.md as the main page, into
# <build>/docs/html. A warning fails the build. No graphs, so it takes seconds.
find_package(Doxygen 1.9)
if(NOT DOXYGEN_FOUND)
  return()
endif()

# The headers of the HEADERS file sets of every target defined in `dir` and the folders below it.
function(kiv_public_headers out dir)
  set(headers)
  get_property(targets DIRECTORY ${dir} PROPERTY BUILDSYSTEM_TARGETS)
  foreach(target IN LISTS targets)
    get_target_property(set_headers ${target} HEADER_SET)
    if(set_headers)
      list(APPEND headers ${set_headers})
    endif()
  endforeach()
  get_property(folders DIRECTORY ${dir} PROPERTY SUBDIRECTORIES)
  foreach(folder IN LISTS folders)
    kiv_public_headers(folder_headers ${folder})
    list(APPEND headers ${folder_headers})
  endforeach()
  set(${out} ${headers} PARENT_SCOPE)
endfunction()

kiv_public_headers(KIV_PUBLIC_HEADERS ${PROJECT_SOURCE_DIR})
list(SORT KIV_PUBLIC_HEADERS)
list(JOIN KIV_PUBLIC_HEADERS " \\\n  " KIV_DOXYGEN_INPUT)
set(KIV_DOXYGEN_OUTPUT ${PROJECT_BINARY_DIR}/docs)
configure_file(${PROJECT_SOURCE_DIR}/docs/Doxyfile.in ${KIV_DOXYGEN_OUTPUT}/Doxyfile @ONLY)
add_custom_target(docs
  COMMAND Doxygen::doxygen ${KIV_DOXYGEN_OUTPUT}/Doxyfile
  WORKING_DIRECTORY ${PROJECT_SOURCE_DIR}
  COMMENT "API reference in ${KIV_DOXYGEN_OUTPUT}/html"
  VERBATIM)
