# The release folder (templates and policies) ships inside mox_conf: packed
# into a signed, enciphered release package on the build host and appended
# to the program, followed by the package's length. On the device
# "mox_conf release install" checks it and unpacks it into /tmp/mox/release.
#
# strip and objcopy drop bytes appended after the program's last section, so
# the package must be appended after the last such step in every path that
# ships mox_conf. Here the program is linked as mox_conf.bare and the image
# mox_conf made from it; the image is installed with install(PROGRAMS),
# which "cmake --install --strip" never strips. A cross build or a firmware
# package that strips must strip mox_conf.bare and only then append.

include(GNUInstallDirs)

# The signing pair. The private key is read on the build host only; the
# public key is compiled into mox_conf. The defaults are the development
# pair; a product build names its own.
set(MOX_RELEASE_SIGNING_KEY "${CMAKE_SOURCE_DIR}/keys/dev/release_signing_private.pem" CACHE FILEPATH
  "PEM Ed25519 private key that signs the release package (build host only)")
set(MOX_RELEASE_VERIFY_KEY "${CMAKE_SOURCE_DIR}/keys/dev/release_signing_public.pem" CACHE FILEPATH
  "PEM Ed25519 public key compiled into mox_conf to verify the release package")
file(READ "${MOX_RELEASE_VERIFY_KEY}" MOX_RELEASE_VERIFY_KEY_PEM)
if(NOT MOX_RELEASE_VERIFY_KEY_PEM MATCHES "-----BEGIN PUBLIC KEY-----")
  message(FATAL_ERROR "MOX_RELEASE_VERIFY_KEY (${MOX_RELEASE_VERIFY_KEY}) holds no PEM public key")
endif()
set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS "${MOX_RELEASE_VERIFY_KEY}")
mox_refuse_dev_key(MOX_RELEASE_VERIFY_KEY ${MOX_RELEASE_VERIFY_KEY} release_signing_public.pem)
configure_file(${CMAKE_SOURCE_DIR}/store/release_keys.h.in
  ${CMAKE_BINARY_DIR}/generated/release_keys.h @ONLY)
target_include_directories(mox_store PRIVATE ${CMAKE_BINARY_DIR}/generated)
target_link_libraries(mox_store PUBLIC ZLIB::ZLIB)

# The packer runs on the build host. It checks its own output with the
# device's code and the compiled-in verify key, so a signing key that does
# not match that key fails the build. A cross build cannot run the packer
# it would build: it names one built for the build host with the same keys
# (scripts/cross builds it in build-host-tools).
set(MOX_HOST_PACK "" CACHE FILEPATH "mox_pack built for the build host (cross builds)")
if(CMAKE_CROSSCOMPILING)
  if(NOT EXISTS "${MOX_HOST_PACK}")
    message(FATAL_ERROR "a cross build needs MOX_HOST_PACK, a mox_pack built for this host")
  endif()
  set(MOX_PACK_COMMAND ${MOX_HOST_PACK})
else()
  add_executable(mox_pack ${CMAKE_SOURCE_DIR}/store/mox_pack_main.cpp)
  target_compile_options(mox_pack PRIVATE ${MOX_WARNINGS})
  target_compile_definitions(mox_pack PRIVATE _GNU_SOURCE)
  target_link_libraries(mox_pack PRIVATE mox_store)
  set(MOX_PACK_COMMAND mox_pack)
endif()

# Folders are listed too: a folder's time changes when an entry is added to
# or removed from it, so a removed file repacks as well as a changed one.
file(GLOB_RECURSE MOX_RELEASE_FILES LIST_DIRECTORIES true CONFIGURE_DEPENDS
  ${CMAKE_SOURCE_DIR}/release/*)
set(MOX_RELEASE_PACKAGE ${CMAKE_BINARY_DIR}/release.pkg)
add_custom_command(OUTPUT ${MOX_RELEASE_PACKAGE}
  COMMAND ${MOX_PACK_COMMAND} pack ${CMAKE_SOURCE_DIR}/release ${MOX_RELEASE_SIGNING_KEY} ${MOX_RELEASE_PACKAGE}
  DEPENDS ${MOX_PACK_COMMAND} ${CMAKE_SOURCE_DIR}/release ${MOX_RELEASE_FILES}
    ${MOX_RELEASE_SIGNING_KEY} ${MOX_RELEASE_VERIFY_KEY}
  COMMENT "Packing release/ into release.pkg"
  VERBATIM)

# The program is linked as bare/mox_conf.bare; mox_conf is the image that
# ships. The program lives in a folder of its own: CMake takes a path in
# the program's folder whose name is a target's name for that target.
set_target_properties(mox_conf PROPERTIES OUTPUT_NAME mox_conf.bare
  RUNTIME_OUTPUT_DIRECTORY ${CMAKE_BINARY_DIR}/bare)
set(MOX_CONF_IMAGE ${CMAKE_BINARY_DIR}/mox_conf)
add_custom_command(OUTPUT ${MOX_CONF_IMAGE}
  COMMAND ${MOX_PACK_COMMAND} image $<TARGET_FILE:mox_conf> ${MOX_RELEASE_PACKAGE} ${MOX_CONF_IMAGE}
  DEPENDS ${MOX_PACK_COMMAND} mox_conf ${MOX_RELEASE_PACKAGE}
  COMMENT "Appending release.pkg to mox_conf"
  VERBATIM)
add_custom_target(mox_conf_image ALL DEPENDS ${MOX_CONF_IMAGE})

install(PROGRAMS ${MOX_CONF_IMAGE} DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT device)
install(FILES ${MOX_RELEASE_PACKAGE} DESTINATION ${CMAKE_INSTALL_DATADIR}/mox COMPONENT device)
install(TARGETS mox_logd RUNTIME DESTINATION ${CMAKE_INSTALL_SBINDIR} COMPONENT device)
install(TARGETS mox_logdecode RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT collector)
