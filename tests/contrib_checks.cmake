# Checks of the manual pages and contrib/ files (tests/contrib_check.sh):
# lint the manuals, compile the U-Boot script, verify the systemd unit and
# try the bash completion. A check whose tool is missing is skipped.
foreach(check man completion uboot systemd)
  add_test(NAME Contrib.${check}
           COMMAND bash ${CMAKE_CURRENT_LIST_DIR}/contrib_check.sh ${check}
                   ${CMAKE_SOURCE_DIR} ${CMAKE_BINARY_DIR}/contrib-check)
  set_tests_properties(Contrib.${check} PROPERTIES SKIP_RETURN_CODE 77 TIMEOUT 60)
endforeach()
