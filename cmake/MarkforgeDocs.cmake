# Man pages and shell completion for every program: each docs/man/NAME.N.scd
# becomes NAME.N.gz (scdoc at build time), installed under share/man/manN;
# each file in completion/ is installed as is under
# share/bash-completion/completions/.

# AUTO builds the man pages when scdoc is there; ON requires it.
set(MARKFORGE_MAN_PAGES AUTO CACHE STRING "Build the man pages with scdoc (AUTO, ON, OFF)")
set_property(CACHE MARKFORGE_MAN_PAGES PROPERTY STRINGS AUTO ON OFF)

function(markforge_man_pages)
  if(MARKFORGE_MAN_PAGES STREQUAL OFF)
    return()
  endif()
  find_program(MARKFORGE_SCDOC scdoc)
  find_program(MARKFORGE_GZIP gzip)
  if(NOT MARKFORGE_SCDOC OR NOT MARKFORGE_GZIP)
    if(MARKFORGE_MAN_PAGES STREQUAL ON)
      message(FATAL_ERROR "The man pages need scdoc and gzip (apt-get install scdoc)")
    endif()
    message(STATUS "scdoc not found: no man pages")
    return()
  endif()
  file(GLOB sources CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/docs/man/*.scd)
  set(pages)
  foreach(source ${sources})
    get_filename_component(page ${source} NAME_WLE)  # recaster.1
    string(REGEX REPLACE ".*\\.([0-9])$" "\\1" section ${page})
    set(output ${PROJECT_BINARY_DIR}/man/${page}.gz)
    # Compressed without a time stamp or name (gzip -n), so the result is
    # the same on every build, as Debian's packages want it.
    add_custom_command(OUTPUT ${output}
      COMMAND ${CMAKE_COMMAND} -E make_directory ${PROJECT_BINARY_DIR}/man
      COMMAND sh -c "'${MARKFORGE_SCDOC}' < '${source}' | '${MARKFORGE_GZIP}' -9n > '${output}'"
      DEPENDS ${source}
      COMMENT "scdoc ${page}"
      VERBATIM)
    install(FILES ${output} DESTINATION ${CMAKE_INSTALL_MANDIR}/man${section})
    list(APPEND pages ${output})
  endforeach()
  add_custom_target(man_pages ALL DEPENDS ${pages})
  set(MARKFORGE_MAN_PAGE_FILES ${pages} PARENT_SCOPE)
endfunction()

function(markforge_completions)
  file(GLOB scripts CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/completion/*)
  install(FILES ${scripts} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endfunction()

# The documents the programs' help screens and man pages point to, under
# share/doc/markforge-tools/, with the example scripts under examples/.
set(MARKFORGE_USER_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/markforge-tools)
function(markforge_user_docs)
  foreach(doc container-format json plugins sign-agent signing-outside)
    install(FILES ${PROJECT_SOURCE_DIR}/docs/${doc}.md DESTINATION ${MARKFORGE_USER_DOC_DIR})
  endforeach()
  install(FILES ${PROJECT_SOURCE_DIR}/docs/examples/verify-with-openssl.sh
                ${PROJECT_SOURCE_DIR}/docs/examples/sign-requests.sh
          DESTINATION ${MARKFORGE_USER_DOC_DIR}/examples)
endfunction()
