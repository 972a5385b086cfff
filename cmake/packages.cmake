# Debian packages: each component of the installation becomes the package of its name. scripts/package builds them.
set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_PACKAGE_CONTACT "zeb developers <zeb@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "") # it would be put before those of the packages
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGING_INSTALL_PREFIX ${CMAKE_INSTALL_PREFIX}) # which stands in the unit and in zeb.pc

# What a package needs of the system is found by the libraries it is linked with. Those that need our own library say so
# below: while the packages are made, none that the system knows holds it.
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS_PRIVATE_DIRS ${PROJECT_BINARY_DIR}/src)
set(CPACK_DEBIAN_ENABLE_COMPONENT_DEPENDS ON)
# Packages of programs that others build with the library need this version of it or a later one.
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS ON)
set(CPACK_DEBIAN_PACKAGE_GENERATE_SHLIBS_POLICY ">=")

# Every package holds these two; an installation without packages does not.
string(TIMESTAMP ZEB_PACKAGE_TIME "%a, %d %b %Y %H:%M:%S +0000" UTC)
file(WRITE ${PROJECT_BINARY_DIR}/debian/changelog "zeb (${PROJECT_VERSION}) unstable; urgency=medium

  * Version ${PROJECT_VERSION}.

 -- ${CPACK_PACKAGE_CONTACT}  ${ZEB_PACKAGE_TIME}
")
execute_process(COMMAND gzip -9nf ${PROJECT_BINARY_DIR}/debian/changelog)
set(ZEB_PACKAGE_PAPERS ${PROJECT_BINARY_DIR}/debian/changelog.gz ${CMAKE_CURRENT_LIST_DIR}/copyright)

# zeb_package(NAME SECTION DESCRIPTION [NEEDED...]): the first line of the description is the short one; needed are other
# packages of ours, of the same version.
macro(zeb_package name section description)
  string(TOUPPER ${name} ZEB_PACKAGE)
  list(APPEND CPACK_COMPONENTS_ALL ${name})
  set(CPACK_DEBIAN_${ZEB_PACKAGE}_PACKAGE_NAME ${name})
  set(CPACK_DEBIAN_${ZEB_PACKAGE}_PACKAGE_SECTION ${section})
  set(CPACK_COMPONENT_${ZEB_PACKAGE}_DESCRIPTION "${description}")
  set(CPACK_COMPONENT_${ZEB_PACKAGE}_DEPENDS ${ARGN})
  install(FILES ${ZEB_PACKAGE_PAPERS} DESTINATION ${CMAKE_INSTALL_DATADIR}/doc/${name} COMPONENT ${name} EXCLUDE_FROM_ALL)
endmacro()

set(ZEB_LIBRARY_PACKAGE libzeb${PROJECT_VERSION_MAJOR}) # as its soname
zeb_package(${ZEB_LIBRARY_PACKAGE} libs "notifications between the programs of a host - library
Programs publish notifications, which are a type with properties and a body,
and get those that they have subscribed to, from whatever program they come.
Group membership, streams, remote calls and structured bodies come with it.")
set(CPACK_DEBIAN_LIBZEB${PROJECT_VERSION_MAJOR}_PACKAGE_RECOMMENDS zebd)
file(WRITE ${PROJECT_BINARY_DIR}/debian/triggers "activate-noawait ldconfig\n")
set(CPACK_DEBIAN_LIBZEB${PROJECT_VERSION_MAJOR}_PACKAGE_CONTROL_EXTRA ${PROJECT_BINARY_DIR}/debian/triggers)

zeb_package(libzeb-dev libdevel "notifications between the programs of a host - development files
The header zeb.h, what a program is linked through, and examples in C."
  ${ZEB_LIBRARY_PACKAGE})

if(ZEB_DAEMON)
  zeb_package(zebd net "notifications between the programs of a host - daemon
It knows which program has subscribed to what, and passes notifications on.
It listens on the loopback only, and starts with the system as a user that
exists only while it runs.")
  set(CPACK_DEBIAN_ZEBD_PACKAGE_CONTROL_EXTRA ${PROJECT_SOURCE_DIR}/daemon/debian/postinst
    ${PROJECT_SOURCE_DIR}/daemon/debian/prerm ${PROJECT_SOURCE_DIR}/daemon/debian/postrm)
endif()

if(ZEB_TOOLS)
  zeb_package(zeb net "notifications between the programs of a host - command line
It publishes notifications and prints those subscribed to, calls functions of
other programs, offers commands as functions, and examines the daemon."
    ${ZEB_LIBRARY_PACKAGE})
  set(CPACK_DEBIAN_ZEB_PACKAGE_RECOMMENDS zebd)
endif()

include(CPack)
