# The Debian package, built by `cpack -G DEB` in any build folder: the service with its Assets/ in
# /usr/lib/mirelle-studio-file-agent, the tools in /usr/bin, the unit in /usr/lib/systemd/system,
# enabled and started on installation and stopped on removal by the maintainer scripts in
# packaging/, the man pages, and the copyright file Debian asks for.
set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME mirelle-studio-file-agent)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_VENDOR "Orvanta")
set(CPACK_PACKAGE_CONTACT "Orvanta Mirelle Studio <mirelle-studio@orvanta.example>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "file-watching agent for the Mirelle Catalog photo application")
set(CPACK_PACKAGE_DESCRIPTION "A per-machine service that the Mirelle Catalog application talks to over a
local socket: a client names the folders to watch and later collects the
names of the files that changed there, whether or not it was connected
meanwhile. The watch list survives restarts. Includes fileagent-client, a
command-line client, and lexicon-tool, which compiles the service's
translation dictionaries.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
# dpkg-shlibdeps finds the libraries the binaries link (libc, libstdc++, libacl).
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_STRIP_FILES ON)
# The package always installs below /usr, whatever prefix the build folder was configured with.
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
    ${PROJECT_SOURCE_DIR}/packaging/postinst
    ${PROJECT_SOURCE_DIR}/packaging/prerm
    ${PROJECT_SOURCE_DIR}/packaging/postrm)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION TRUE)
include(CPack)
