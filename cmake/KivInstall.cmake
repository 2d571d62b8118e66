# The library as other programs see it. In this build, or as a subfolder of another one, that is
# kiv::kiv and kiv::kiv_static; `cmake --install` lays the same down
# together with a CMake package, a pkg-config file and the client shell. Nothing installed holds
# an absolute path: the tree may be moved.

include(CMakePackageConfigHelpers)

set(KIV_PUBLIC_HEADERS
  Kiv/crashhandler/CrashReporter.h
  Platform/Foundation/NSException.h
  Platform/Foundation/NSError.h)
set(kiv_package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/kiv")
set(kiv_shell_dir "${CMAKE_INSTALL_LIBEXECDIR}/ovalyn")

add_library(kiv::kiv ALIAS kiv_shared)
add_library(kiv::kiv_static ALIAS kiv_static)
add_library(kiv::throw_hook ALIAS kiv_throw_hook)

# Hidden visibility does not reach the templates of namespace std that the library instantiates.
set(kiv_exports "${PROJECT_SOURCE_DIR}/cmake/kivExports.map")
target_link_options(kiv_shared PRIVATE "LINKER:--version-script=${kiv_exports}")
set_property(TARGET kiv_shared APPEND PROPERTY LINK_DEPENDS "${kiv_exports}")

set_target_properties(kiv_shared PROPERTIES EXPORT_NAME kiv)
set_target_properties(kiv_throw_hook PROPERTIES EXPORT_NAME throw_hook)
install(TARGETS kiv_shared kiv_static kiv_throw_hook EXPORT kivTargets
  OBJECTS DESTINATION "${CMAKE_INSTALL_LIBDIR}/kiv"
  LIBRARY DESTINATION "${CMAKE_INSTALL_LIBDIR}"
  ARCHIVE DESTINATION "${CMAKE_INSTALL_LIBDIR}")
install(EXPORT kivTargets NAMESPACE kiv:: DESTINATION "${kiv_package_dir}")
install(FILES ${KIV_PUBLIC_HEADERS} DESTINATION "${CMAKE_INSTALL_INCLUDEDIR}/kiv")

configure_package_config_file(cmake/kivConfig.cmake.in "${PROJECT_BINARY_DIR}/package/kivConfig.cmake"
  INSTALL_DESTINATION "${kiv_package_dir}" NO_SET_AND_CHECK_MACRO NO_CHECK_REQUIRED_COMPONENTS_MACRO)
write_basic_package_version_file("${PROJECT_BINARY_DIR}/package/kivConfigVersion.cmake"
  COMPATIBILITY SameMajorVersion)
install(FILES "${PROJECT_BINARY_DIR}/package/kivConfig.cmake" "${PROJECT_BINARY_DIR}/package/kivConfigVersion.cmake"
  DESTINATION "${kiv_package_dir}")

file(RELATIVE_PATH kiv_prefix_from_pc "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
configure_file(cmake/kiv.pc.in "${PROJECT_BINARY_DIR}/package/kiv.pc" @ONLY)
install(FILES "${PROJECT_BINARY_DIR}/package/kiv.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")

if(KIV_BUILD_TOOLS)
  install(TARGETS kiv RUNTIME DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()

# The shell's bundle is the folder of its executable, so it gets a folder of its own; bin/
# holds a link to it.
if(KIV_BUILD_CLIENT)
  file(RELATIVE_PATH kiv_lib_from_shell "/prefix/${kiv_shell_dir}" "/prefix/${CMAKE_INSTALL_LIBDIR}")
  file(RELATIVE_PATH kiv_shell_from_bin "/prefix/${CMAKE_INSTALL_BINDIR}" "/prefix/${kiv_shell_dir}/ovalyn")
  set_target_properties(ovalyn PROPERTIES INSTALL_RPATH "$ORIGIN/${kiv_lib_from_shell}")
  install(TARGETS ovalyn RUNTIME DESTINATION "${kiv_shell_dir}")
  install(FILES "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/Info.plist" DESTINATION "${kiv_shell_dir}")
  install(DIRECTORY "${CMAKE_RUNTIME_OUTPUT_DIRECTORY}/Resources" DESTINATION "${kiv_shell_dir}")
  file(MAKE_DIRECTORY "${PROJECT_BINARY_DIR}/package")
  file(CREATE_LINK "${kiv_shell_from_bin}" "${PROJECT_BINARY_DIR}/package/ovalyn" SYMBOLIC)
  install(FILES "${PROJECT_BINARY_DIR}/package/ovalyn" DESTINATION "${CMAKE_INSTALL_BINDIR}")
endif()
