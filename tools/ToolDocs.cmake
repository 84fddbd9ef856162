# A tool's manual page, made by help2man from its --help and --version at build time, and its
# bash completion; both installed with the program.
find_program(HELP2MAN help2man REQUIRED)
function(brakwell_tool_docs target summary)
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
  add_custom_command(OUTPUT ${page}
                     COMMAND ${HELP2MAN} --no-info --name=${summary} --section=1
                             --output=${page} $<TARGET_FILE:${target}>
                     DEPENDS ${target} VERBATIM)
  add_custom_target(${target}_man ALL DEPENDS ${page})
  install(FILES ${page} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/${target}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endfunction()
