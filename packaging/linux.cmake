# What a Linux installation holds besides the two programs, and the Debian
# package made from it (cpack -G DEB, see scripts/package.sh).
include(GNUInstallDirs)
set(CORVANE_DOC_DIR ${CMAKE_INSTALL_DATADIR}/doc/corvane-dispatcher)
set(CORVANE_PACKAGING_OUT ${CMAKE_CURRENT_BINARY_DIR}/packaging)

install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/platform/linux/com.halvard.corvane.dispatcher.desktop
        DESTINATION ${CMAKE_INSTALL_DATADIR}/applications)
# The icon the entry names, from the SVG that the macOS app's icon is made of too.
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/packaging/com.halvard.corvane.dispatcher.svg
        DESTINATION ${CMAKE_INSTALL_DATADIR}/icons/hicolor/scalable/apps)
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE DESTINATION ${CORVANE_DOC_DIR})
install(FILES "${CMAKE_CURRENT_SOURCE_DIR}/demo/Local State" DESTINATION ${CORVANE_DOC_DIR}/examples)

# Manual pages and the change log are installed compressed, as Debian wants
# them; man reads them either way.
set(compressed)
foreach(source doc/man/corvane-dispatcher.1 doc/man/corvane-dispatcher-policy.1 packaging/changelog)
  get_filename_component(name ${source} NAME)
  add_custom_command(OUTPUT ${CORVANE_PACKAGING_OUT}/${name}.gz
    COMMAND ${CMAKE_COMMAND} -E copy ${CMAKE_CURRENT_SOURCE_DIR}/${source} ${CORVANE_PACKAGING_OUT}/${name}
    COMMAND gzip -9nf ${CORVANE_PACKAGING_OUT}/${name}
    DEPENDS ${CMAKE_CURRENT_SOURCE_DIR}/${source} VERBATIM)
  list(APPEND compressed ${CORVANE_PACKAGING_OUT}/${name}.gz)
endforeach()
add_custom_target(corvane_compressed_docs ALL DEPENDS ${compressed})
install(FILES ${CORVANE_PACKAGING_OUT}/corvane-dispatcher.1.gz ${CORVANE_PACKAGING_OUT}/corvane-dispatcher-policy.1.gz
        DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CORVANE_PACKAGING_OUT}/changelog.gz DESTINATION ${CORVANE_DOC_DIR})

# The licence in the machine-readable form Debian reads from doc/copyright.
file(READ ${CMAKE_CURRENT_SOURCE_DIR}/LICENSE license)
string(REGEX MATCH "Copyright \\(c\\) ([^\n]*)" unused "${license}")
set(holder "${CMAKE_MATCH_1}")
string(REGEX REPLACE "^.*All rights reserved\\.\n" "" terms "${license}")
string(STRIP "${terms}" terms)
string(REPLACE "\n\n" "\n.\n" terms "${terms}")
string(REPLACE "\n" "\n " terms "${terms}")
file(WRITE ${CORVANE_PACKAGING_OUT}/copyright
  "Format: https://www.debian.org/doc/packaging-manuals/copyright-format/1.0/\n"
  "Upstream-Name: corvane-dispatcher\n\n"
  "Files: *\nCopyright: ${holder}\nLicense: BSD-3-Clause\n\n"
  "License: BSD-3-Clause\n ${terms}\n")
install(FILES ${CORVANE_PACKAGING_OUT}/copyright DESTINATION ${CORVANE_DOC_DIR})

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane-dispatcher)
set(CPACK_PACKAGE_CONTACT "Halvard Corvane team <corvane@halvard.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "opens each web link in the browser that policy chooses")
# Lines of the extended description stay short: the control file keeps them as written.
string(JOIN "\n" CPACK_PACKAGE_DESCRIPTION
  "Corvane Dispatcher is a windowless handler of http and https links. For"
  "every link it decides, from the policy that the managed work browser keeps"
  "in its Local State file, whether the link is a work link: work links open"
  "in the work browser, all others in the browser the user chose for them."
  "Every failure falls back to the work browser, and each decision is one"
  "line in a debug log."
  ""
  "The package also holds corvane-dispatcher-policy, which shows what the"
  "dispatcher makes of a policy. Installing the package changes no one's"
  "default browser: each user makes the dispatcher the default with"
  "xdg-settings or the desktop's settings.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION web)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
# The commands that make it the default browser.
set(CPACK_DEBIAN_PACKAGE_RECOMMENDS xdg-utils)
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
