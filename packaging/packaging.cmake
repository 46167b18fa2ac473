# What `cmake --install` puts where, and the Debian package built from it.
# The package version is the project's version; nothing else states it.

include(GNUInstallDirs)

set(TARN_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/quillon-tarn-ctl)
set(TARN_PKG_DIR ${CMAKE_BINARY_DIR}/packaging)

# Debian wants the manual page and the changelog compressed, without a
# time stamp in the gzip header, so that rebuilds are identical.
configure_file(${CMAKE_CURRENT_LIST_DIR}/changelog.in ${TARN_PKG_DIR}/changelog @ONLY)
set(TARN_GZ_FILES)
foreach(src ${PROJECT_SOURCE_DIR}/docs/quillon-tarn-ctl.8 ${TARN_PKG_DIR}/changelog)
  get_filename_component(name ${src} NAME)
  add_custom_command(OUTPUT ${TARN_PKG_DIR}/${name}.gz
    COMMAND sh -c "gzip -9n -c \"$0\" > \"$1\"" ${src} ${TARN_PKG_DIR}/${name}.gz
    DEPENDS ${src} VERBATIM)
  list(APPEND TARN_GZ_FILES ${TARN_PKG_DIR}/${name}.gz)
endforeach()
add_custom_target(tarn_install_files ALL DEPENDS ${TARN_GZ_FILES})

install(TARGETS quillon-tarn-ctl DESTINATION ${CMAKE_INSTALL_SBINDIR})
install(FILES ${TARN_PKG_DIR}/quillon-tarn-ctl.8.gz DESTINATION ${CMAKE_INSTALL_MANDIR}/man8)
install(FILES ${PROJECT_SOURCE_DIR}/completion/quillon-tarn-ctl
        DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions)
install(FILES ${PROJECT_SOURCE_DIR}/README.md ${CMAKE_CURRENT_LIST_DIR}/copyright
              ${TARN_PKG_DIR}/changelog.gz
        DESTINATION ${TARN_DOC_DIR})
# The README links into docs/; keep that layout.
install(DIRECTORY ${PROJECT_SOURCE_DIR}/docs/ DESTINATION ${TARN_DOC_DIR}/docs
        FILES_MATCHING PATTERN "*.md")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME quillon-tarn-ctl)
set(CPACK_PACKAGE_VENDOR "TARN")
set(CPACK_PACKAGE_CONTACT "TARN maintainers <tarn-maintainers@example.org>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "control tool of the TARN backup gateway")
set(CPACK_PACKAGE_DESCRIPTION
    "quillon-tarn-ctl prepares a TARN gateway's directory tree and its storage
attributes, mounts its NFS volume, migrates accounts from another data
centre, sets up and checks replication between two sites and hands the
gateway's logs to the log manager.")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS "bash-completion")
include(CPack)
