# A tool's manual page, made by help2man from its --help and --version at build time, and its
# bash completion; both installed with the program. Debian keeps manual pages compressed, with no
# time stamp in the gzip header.
find_program(HELP2MAN help2man REQUIRED)
# A tool with subcommands gets a COMMANDS section made of each one's --help.
function(brakwell_tool_docs target summary)
  set(page ${CMAKE_CURRENT_BINARY_DIR}/${target}.1)
  set(include ${CMAKE_CURRENT_BINARY_DIR}/${target}.h2m)
  add_custom_command(OUTPUT ${page}
                     COMMAND ${PROJECT_SOURCE_DIR}/tools/man-commands.sh $<TARGET_FILE:${target}>
                             ${include}
                     COMMAND ${HELP2MAN} --no-info --name=${summary} --section=1
                             --include=${include} --output=${page} $<TARGET_FILE:${target}>
                     DEPENDS ${target} ${PROJECT_SOURCE_DIR}/tools/man-commands.sh VERBATIM)
  add_custom_command(OUTPUT ${page}.gz COMMAND gzip -9nkf ${page} DEPENDS ${page} VERBATIM)
  add_custom_target(${target}_man ALL DEPENDS ${page}.gz)
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/completion/${target}
          DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
endfunction()
