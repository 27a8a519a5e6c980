# What is installed: libraries, header, package files for CMake and pkg-config, and manual pages. The
# package files find everything by their own place, so that an installed prefix can be moved.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qx_runtime)
install(TARGETS ${qx_libraries} EXPORT qx_runtimeTargets
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(FILES include/qx_runtime.h bindings/cpp/qx_runtime.hpp DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(EXPORT qx_runtimeTargets NAMESPACE qx_runtime:: DESTINATION ${package_dir})
configure_package_config_file(cmake/qx_runtimeConfig.cmake.in qx_runtimeConfig.cmake
  INSTALL_DESTINATION ${package_dir} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(qx_runtimeConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES
  ${CMAKE_CURRENT_BINARY_DIR}/qx_runtimeConfig.cmake
  ${CMAKE_CURRENT_BINARY_DIR}/qx_runtimeConfigVersion.cmake
  DESTINATION ${package_dir})

# Folders that are given absolutely stay so.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}" OR IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(QX_PC_PREFIX ${CMAKE_INSTALL_PREFIX})
  set(QX_PC_LIBDIR ${CMAKE_INSTALL_FULL_LIBDIR})
  set(QX_PC_INCLUDEDIR ${CMAKE_INSTALL_FULL_INCLUDEDIR})
else()
  file(RELATIVE_PATH upwards /prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig /prefix)
  string(REGEX REPLACE "/$" "" upwards "${upwards}")
  set(QX_PC_PREFIX "\${pcfiledir}/${upwards}")
  set(QX_PC_LIBDIR "\${prefix}/${CMAKE_INSTALL_LIBDIR}")
  set(QX_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
# Who links the static library links libm too: always, where there is no other library.
set(QX_PC_LIBS "")
set(QX_PC_STATIC_LIBS -lm)
if(NOT TARGET qx_runtime)
  set(QX_PC_LIBS " -lm")
  set(QX_PC_STATIC_LIBS "")
endif()
configure_file(cmake/qx_runtime.pc.in qx_runtime.pc @ONLY)
install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qx_runtime.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
if(TARGET qx_collection)
  # A package of its own: it needs nothing of the other, whose engine is inside of the library.
  set(package_dir ${CMAKE_INSTALL_LIBDIR}/cmake/qx_collection)
  install(TARGETS qx_collection EXPORT qx_collectionTargets
    INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(FILES collection/include/qx_collection.h collection/include/qx_collection.hpp
    DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
  install(EXPORT qx_collectionTargets FILE qx_collectionConfig.cmake NAMESPACE qx_runtime::
    DESTINATION ${package_dir})
  write_basic_package_version_file(qx_collectionConfigVersion.cmake COMPATIBILITY SameMajorVersion)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qx_collectionConfigVersion.cmake
    DESTINATION ${package_dir})
  configure_file(cmake/qx_collection.pc.in qx_collection.pc @ONLY)
  install(FILES ${CMAKE_CURRENT_BINARY_DIR}/qx_collection.pc
    DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)
endif()

# The manual pages are written from the header, by Python.
find_package(Python3 COMPONENTS Interpreter)
if(Python3_Interpreter_FOUND)
  set(pages ${CMAKE_CURRENT_BINARY_DIR}/man)
  add_custom_command(OUTPUT ${pages}/man7/qx_runtime.7
    COMMAND Python3::Interpreter ${PROJECT_SOURCE_DIR}/scripts/man_pages.py
      ${pages} ${PROJECT_VERSION} ${QX_RELEASE_DATE}
    DEPENDS include/qx_runtime.h scripts/man_pages.py scripts/header.py
    COMMENT "Writing the manual pages")
  add_custom_target(qx_runtime_man ALL DEPENDS ${pages}/man7/qx_runtime.7)
  install(DIRECTORY ${pages}/ DESTINATION ${CMAKE_INSTALL_MANDIR})
else()
  message(STATUS "qx_runtime: no Python, no manual pages")
endif()
