# tarn_install_manual(TARGET): makes the manual page TARGET.1.gz and the
# bash completion TARGET from the built program itself (its hidden options
# --print-man and --print-completion print them from its command table, so
# they cannot drift from what it takes), and installs both in the tools
# component. A cross build can run the program only through its emulator;
# without one it makes neither, and says so.
function(tarn_install_manual target)
  if(CMAKE_CROSSCOMPILING AND NOT CMAKE_CROSSCOMPILING_EMULATOR)
    message(STATUS "${target}: no manual page nor bash completion (cross build without an emulator)")
    return()
  endif()
  set(dir ${CMAKE_CURRENT_BINARY_DIR}/manual)
  set(page ${dir}/${target}.1)
  set(completion ${dir}/${target})
  add_custom_command(OUTPUT ${page}.gz ${completion}
    COMMAND ${CMAKE_COMMAND} -E make_directory ${dir}
    COMMAND sh -c "\"$@\" --print-man > '${page}' && gzip -9nf '${page}'" sh
      ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${target}>
    COMMAND sh -c "\"$@\" --print-completion > '${completion}'" sh
      ${CMAKE_CROSSCOMPILING_EMULATOR} $<TARGET_FILE:${target}>
    DEPENDS ${target}
    COMMENT "Making the manual page and bash completion of ${target}"
    VERBATIM)
  add_custom_target(${target}-manual ALL DEPENDS ${page}.gz ${completion})
  install(FILES ${page}.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT tools)
  install(FILES ${completion} DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions COMPONENT tools)
endfunction()
