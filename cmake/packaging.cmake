# What installs besides the programs (manual pages, the systemd unit, the
# OpenWrt init script, the collector's rsyslog setting), and the two Debian
# packages CPack makes of it: mox-logd for the device, mox-logdecode for the
# collector. "cpack" in a build folder makes both, for that build's target.

include(GNUInstallDirs)

set(MOX_PACKAGING_DIR ${CMAKE_SOURCE_DIR}/packaging)
set(MOX_PACKAGING_OUT ${CMAKE_BINARY_DIR}/packaging)

# Manual pages carry the version and the date the firmware version carries.
string(REGEX REPLACE "^([0-9][0-9][0-9][0-9])([0-9][0-9])([0-9][0-9])$" "\\1-\\2-\\3"
  MOX_MAN_DATE "${MOX_BUILD_DATE}")
foreach(page mox_logd.8 mox_conf.8 mox_logdecode.1)
  configure_file(${MOX_PACKAGING_DIR}/man/${page}.in ${MOX_PACKAGING_OUT}/man/${page} @ONLY)
endforeach()
install(FILES ${MOX_PACKAGING_OUT}/man/mox_logd.8 ${MOX_PACKAGING_OUT}/man/mox_conf.8
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man8 COMPONENT device)
install(FILES ${MOX_PACKAGING_OUT}/man/mox_logdecode.1
  DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT collector)

# The unit and the init script name the daemon by its installed path, and
# that is known only when installing: cpack installs with a prefix of its
# own (/usr), not the build's. For the same reason /etc is chosen then: a
# /usr prefix puts its settings in /etc, as GNUInstallDirs does; any other
# keeps them below the prefix.
set(mox_install_code [=[
  if(IS_ABSOLUTE "@CMAKE_INSTALL_SBINDIR@")
    set(MOX_SBINDIR "@CMAKE_INSTALL_SBINDIR@")
  else()
    set(MOX_SBINDIR "${CMAKE_INSTALL_PREFIX}/@CMAKE_INSTALL_SBINDIR@")
  endif()
  if(CMAKE_INSTALL_PREFIX STREQUAL "/usr")
    set(mox_etc /etc)
  else()
    set(mox_etc "${CMAKE_INSTALL_PREFIX}/etc")
  endif()
]=])
string(CONFIGURE "${mox_install_code}" mox_install_code @ONLY)
string(CONFIGURE [=[@mox_install_code@
  configure_file(@MOX_PACKAGING_DIR@/systemd/mox_logd.service.in
    @MOX_PACKAGING_OUT@/mox_logd.service @ONLY)
  configure_file(@MOX_PACKAGING_DIR@/openwrt/mox_logd.init.in @MOX_PACKAGING_OUT@/init.d/mox_logd @ONLY)
  file(INSTALL @MOX_PACKAGING_OUT@/mox_logd.service
    DESTINATION "${CMAKE_INSTALL_PREFIX}/lib/systemd/system")
  file(INSTALL @MOX_PACKAGING_OUT@/init.d/mox_logd DESTINATION "${mox_etc}/init.d"
    FILE_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE
      WORLD_READ WORLD_EXECUTE)
]=] mox_device_code @ONLY)
install(CODE "${mox_device_code}" COMPONENT device)
string(CONFIGURE [=[@mox_install_code@
  file(INSTALL @MOX_PACKAGING_DIR@/rsyslog/mox-collector.conf DESTINATION "${mox_etc}/rsyslog.d")
]=] mox_collector_code @ONLY)
install(CODE "${mox_collector_code}" COMPONENT collector)

# The Debian packages. Their dependencies are stated, not computed:
# dpkg-shlibdeps would need the target's libraries, which a cross build
# only has in its sysroot. The device programs carry no C++ runtime; the
# collector's decoder does.
set(MOX_DEB_ARCHITECTURE "" CACHE STRING
  "Debian architecture of the packages (empty: the build's target)")
set(mox_arch "${MOX_DEB_ARCHITECTURE}")
if(mox_arch STREQUAL "")
  set(mox_target "${CMAKE_LIBRARY_ARCHITECTURE}")
  if(mox_target STREQUAL "")
    set(mox_target "${CMAKE_SYSTEM_PROCESSOR}")
  endif()
  if(mox_target MATCHES "^(x86_64|amd64)")
    set(mox_arch amd64)
  elseif(mox_target MATCHES "^(aarch64|arm64)")
    set(mox_arch arm64)
  elseif(mox_target MATCHES "^arm.*-gnueabi$")
    set(mox_arch armel)
  elseif(mox_target MATCHES "^arm")
    set(mox_arch armhf)
  elseif(mox_target MATCHES "^i[3-6]86")
    set(mox_arch i386)
  else()
    message(FATAL_ERROR "no Debian architecture known for target \"${mox_target}\": "
      "set MOX_DEB_ARCHITECTURE")
  endif()
endif()

set(CPACK_GENERATOR DEB)
set(CPACK_DEB_COMPONENT_INSTALL ON)
# Only these two: install rules of no component belong to no package.
set(CPACK_COMPONENTS_ALL device collector)
set(CPACK_PACKAGE_NAME mox-logd)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(MOX_PACKAGE_MAINTAINER "mox_logd maintainers <root@localhost>" CACHE STRING
  "Maintainer field of the Debian packages")
set(CPACK_PACKAGE_CONTACT "${MOX_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_ARCHITECTURE ${mox_arch})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS OFF)

set(CPACK_DEBIAN_DEVICE_PACKAGE_NAME mox-logd)
set(CPACK_DEBIAN_DEVICE_PACKAGE_DEPENDS "libc6, libssl3, zlib1g, librelp0")
set(CPACK_COMPONENT_DEVICE_DESCRIPTION "router log daemon and admin tool
mox_logd counts the attack records of the router's web proxy and ships its
access log, sealed, to a collector; mox_conf keeps the stored parameters and
generates the proxy's files. With a systemd unit and an OpenWrt init script.")

set(CPACK_DEBIAN_COLLECTOR_PACKAGE_NAME mox-logdecode)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_DEPENDS "libc6, libssl3, zlib1g, libstdc++6, libgcc-s1")
# Without rsyslog-relp, rsyslog refuses the imrelp lines of the setting.
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_RECOMMENDS "rsyslog, rsyslog-relp")
set(CPACK_COMPONENT_COLLECTOR_DESCRIPTION "collector's decoder for mox_logd's shipped logs
mox_logdecode turns the sealed attack reports and access blocks that an
rsyslog receiver stored back into JSON reports and access lines. With an
rsyslog setting that stores each device's messages whole.")

# Everything under /etc is the operator's to edit: dpkg keeps the edits.
file(WRITE ${MOX_PACKAGING_OUT}/device/conffiles "/etc/init.d/mox_logd\n")
file(WRITE ${MOX_PACKAGING_OUT}/collector/conffiles "/etc/rsyslog.d/mox-collector.conf\n")
set(CPACK_DEBIAN_DEVICE_PACKAGE_CONTROL_EXTRA ${MOX_PACKAGING_OUT}/device/conffiles)
set(CPACK_DEBIAN_COLLECTOR_PACKAGE_CONTROL_EXTRA ${MOX_PACKAGING_OUT}/collector/conffiles)

include(CPack)
