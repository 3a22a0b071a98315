# Installs the three libraries, the library's headers under include/wexcryptcpp/, the
# platform stand-ins' headers in include/ where the vendor's would lie, a CMake package
# (find_package(WexCryptCpp) -> WexCryptCpp::wexcryptcpp) and wexcryptcpp.pc.
include(CMakePackageConfigHelpers)

set(ZUL_INCLUDE_DIR ${CMAKE_INSTALL_INCLUDEDIR}/wexcryptcpp)
set_target_properties(vkl wexcrypt wexcryptcpp PROPERTIES INSTALL_RPATH "$ORIGIN")

install(TARGETS wexcryptcpp EXPORT WexCryptCppTargets LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(TARGETS vkl wexcrypt LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
file(GLOB ZUL_PUBLIC_HEADERS ${CMAKE_CURRENT_SOURCE_DIR}/include/*.h)
install(FILES ${ZUL_PUBLIC_HEADERS} DESTINATION ${ZUL_INCLUDE_DIR})
install(FILES ${CMAKE_CURRENT_SOURCE_DIR}/platform/vkl/include/vkl.h
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/vkl/include/vkl_testing.h
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/wexcrypt/include/wexcrypt.h
  ${CMAKE_CURRENT_SOURCE_DIR}/platform/wexcrypt/include/wexcrypt_testing.h
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})

install(EXPORT WexCryptCppTargets NAMESPACE WexCryptCpp::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WexCryptCpp)
configure_package_config_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/WexCryptCppConfig.cmake.in
  ${CMAKE_CURRENT_BINARY_DIR}/WexCryptCppConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WexCryptCpp)
write_basic_package_version_file(${CMAKE_CURRENT_BINARY_DIR}/WexCryptCppConfigVersion.cmake
  COMPATIBILITY SameMajorVersion)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/WexCryptCppConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/WexCryptCppConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/WexCryptCpp)

file(RELATIVE_PATH ZUL_PC_TO_PREFIX ${CMAKE_INSTALL_PREFIX}/${CMAKE_INSTALL_LIBDIR}/pkgconfig ${CMAKE_INSTALL_PREFIX})
string(REGEX REPLACE "/$" "" ZUL_PC_TO_PREFIX "${ZUL_PC_TO_PREFIX}")
configure_file(${CMAKE_CURRENT_SOURCE_DIR}/cmake/wexcryptcpp.pc.in
  ${CMAKE_CURRENT_BINARY_DIR}/wexcryptcpp.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/wexcryptcpp.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
