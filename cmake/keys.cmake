# The keys a build compiles in, checked before anything is built.
#
# The sealing keys must be RSA of at least 2048 bits: an EC key would build
# and then seal nothing, a short RSA key would seal weakly. They are asked of
# OpenSSL itself, not recognised by their PEM text. A Release build refuses
# the development keys (their private halves are in this repository) unless
# MOX_ALLOW_DEV_KEYS says it is meant, say for a demonstration image.

option(MOX_ALLOW_DEV_KEYS "Let a Release build carry the development keys of keys/dev" OFF)
find_program(MOX_OPENSSL_CLI openssl)
if(NOT MOX_OPENSSL_CLI)
  message(FATAL_ERROR "the openssl program is needed to check the keys (Debian package openssl)")
endif()

# Fails configure unless file holds an RSA public key of 2048 bits or more.
function(mox_require_rsa_public what file)
  execute_process(COMMAND ${MOX_OPENSSL_CLI} rsa -pubin -in ${file} -noout -text
    OUTPUT_VARIABLE text ERROR_VARIABLE err RESULT_VARIABLE rc)
  if(NOT rc EQUAL 0 OR NOT text MATCHES "Public-Key: \\(([0-9]+) bit\\)")
    message(FATAL_ERROR "${what} (${file}) is not an RSA public key: ${err}")
  endif()
  if(CMAKE_MATCH_1 LESS 2048)
    message(FATAL_ERROR "${what} (${file}) is RSA of ${CMAKE_MATCH_1} bits; at least 2048 are needed")
  endif()
endfunction()

# Fails a Release build that carries the development key dev_name, by
# content, so a copy of it elsewhere is caught too.
function(mox_refuse_dev_key what file dev_name)
  file(SHA256 ${file} have)
  file(SHA256 ${CMAKE_SOURCE_DIR}/keys/dev/${dev_name} dev)
  if(have STREQUAL dev AND CMAKE_BUILD_TYPE STREQUAL "Release" AND NOT MOX_ALLOW_DEV_KEYS)
    message(FATAL_ERROR "${what} is the development key keys/dev/${dev_name}, whose private half "
      "is public: name your own, or configure with -DMOX_ALLOW_DEV_KEYS=ON")
  endif()
endfunction()

mox_require_rsa_public(MOX_ATTACK_PUBKEY ${MOX_ATTACK_PUBKEY})
mox_require_rsa_public(MOX_ACCESS_PUBKEY ${MOX_ACCESS_PUBKEY})
mox_refuse_dev_key(MOX_ATTACK_PUBKEY ${MOX_ATTACK_PUBKEY} attack_public.pem)
mox_refuse_dev_key(MOX_ACCESS_PUBKEY ${MOX_ACCESS_PUBKEY} access_public.pem)
