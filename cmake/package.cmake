# cpack -G DEB: one Debian package with the three libraries, the headers, the
# CMake and pkg-config files and the zulcrypt tool, installed under /usr.
set(CPACK_PACKAGE_NAME "wexcryptcpp")
set(CPACK_PACKAGE_VENDOR "WexCryptCpp developers")
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "Object-oriented cryptography toolkit and SNMPv3 USM crypto over VKL")
set(CPACK_PACKAGE_DESCRIPTION
  "libwexcryptcpp with its VKL and libwexcrypt platform libraries (over OpenSSL 3), their headers, and the zulcrypt command-line tool.")
set(CPACK_PACKAGING_INSTALL_PREFIX "/usr")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER "WexCryptCpp developers <wexcryptcpp@localhost>")
set(CPACK_DEBIAN_PACKAGE_SECTION "libs")
set(CPACK_DEBIAN_PACKAGE_PRIORITY "optional")
# Stated rather than computed: dpkg-shlibdeps cannot place the package's own
# platform libraries, and these are all the binaries need from Debian 12.
set(CPACK_DEBIAN_PACKAGE_DEPENDS "libc6 (>= 2.34), libgcc-s1 (>= 3.0), libstdc++6 (>= 12), libssl3 (>= 3.0.0)")
# A shlibs file and the ldconfig trigger, so the libraries are found as soon as they are installed.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")
include(CPack)
