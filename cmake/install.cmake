# Installation and the Debian package.
#
# The installed tree is the product root: the program in <root>/bin and its data in <root>/RKU,
# where the program looks for them through PRODUCT_ROOT_D in /etc/hmx/hmx.conf. The default root
# is the program's own compiled-in default, so a default install works without any configuration.

include(GNUInstallDirs)

# --version prints the project version; the package and the installed manual carry it too.
set_source_files_properties(${CMAKE_SOURCE_DIR}/ferrygate/ferrygate.cc PROPERTIES
  COMPILE_DEFINITIONS FERRYGATE_VERSION="${PROJECT_VERSION}")

# CMake's own default, /usr/local, would scatter the data as /usr/local/RKU; build trees configured
# before this rule existed still carry it in their cache.
if(CMAKE_INSTALL_PREFIX_INITIALIZED_TO_DEFAULT OR CMAKE_INSTALL_PREFIX STREQUAL "/usr/local")
  set(CMAKE_INSTALL_PREFIX /usr/local/hmx CACHE PATH "Product root" FORCE)
endif()
set(FERRYGATE_DATA_DIR RKU)
set(FERRYGATE_CONF_FILE /etc/hmx/hmx.conf)

install(TARGETS ferrygate RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

# Whole directories, so that scripts and agents added later are installed without a rule each.
install(DIRECTORY ${CMAKE_SOURCE_DIR}/data/ DESTINATION ${FERRYGATE_DATA_DIR}
  USE_SOURCE_PERMISSIONS OPTIONAL)
# The program's temporary files are made here (unless DUMP_TMP_D says otherwise).
install(DIRECTORY DESTINATION ${FERRYGATE_DATA_DIR}/tmp
  DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE)

install(FILES ${CMAKE_SOURCE_DIR}/docs/ferrygate.1 DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
install(FILES ${CMAKE_SOURCE_DIR}/docs/architecture.md ${CMAKE_SOURCE_DIR}/docs/controller-guide.md
  DESTINATION ${CMAKE_INSTALL_DOCDIR} OPTIONAL)

# The product configuration names the root chosen at install time. An existing file belongs to
# the administrator (or to the hosting panel) and is never overwritten.
install(CODE "
  set(conf \"\$ENV{DESTDIR}${FERRYGATE_CONF_FILE}\")
  if(EXISTS \"\${conf}\")
    message(STATUS \"Keeping: \${conf}\")
  else()
    message(STATUS \"Installing: \${conf}\")
    file(WRITE \"\${conf}\"
      \"# Product configuration: where the product's parts live.\\n\"
      \"PRODUCT_ROOT_D \${CMAKE_INSTALL_PREFIX}\\n\")
  endif()
")

# Debian package: the same tree, the runtime libraries as dependencies, hmxadm created on
# installation. The Depends list is checked against the libraries the program links to by
# tests/e2e/package_test.cc.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME ferrygate)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "ferrygate developers <root@localhost>")
set(CPACK_PACKAGE_VENDOR "ferrygate developers")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Migration transfer tool for hosting servers")
set(CPACK_PACKAGE_DESCRIPTION
  "Runs on the destination host of a hosting-server migration: probes the source host over SSH,\n\
deploys a migration agent there, downloads the agent's dump and the content files with\n\
free-space and MD5 checks, and reports progress through status files in a session directory.")
set(CPACK_SET_DESTDIR ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX})
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_DEPENDS
  "libc6, libgcc-s1, libstdc++6, libssh2-1, libxml2, libxslt1.1, libssl3, libidn12, \
liblog4cpp5v5, libboost-filesystem1.74.0, zlib1g, libcrypt1, passwd")
configure_file(${CMAKE_SOURCE_DIR}/packaging/deb/postrm.in ${CMAKE_BINARY_DIR}/packaging/postrm
  @ONLY FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
  WORLD_READ WORLD_EXECUTE)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${CMAKE_SOURCE_DIR}/packaging/deb/postinst
  ${CMAKE_BINARY_DIR}/packaging/postrm
  ${CMAKE_SOURCE_DIR}/packaging/deb/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
include(CPack)
