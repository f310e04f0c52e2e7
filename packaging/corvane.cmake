# The Debian package "corvane" (scripts/package builds it with cpack -G DEB):
# the gateway in /usr/sbin, corvane-cli in /usr/bin, the gateway's own
# hardened unit, a loopback-only config.ini in /etc/corvane (a conffile) and
# the maintainer scripts that make the service user, the state and log
# directories, and remove them all again on purge.

# The gateway finds its files through the layout compiled into it: the
# package's paths below must be the ones it was built with.
foreach(layout CONFIG:/etc/corvane STATE:/var/lib/corvane LOG:/var/log/corvane)
  string(REPLACE ":" ";" layout ${layout})
  list(GET layout 0 name)
  list(GET layout 1 expected)
  if(NOT CORVANE_${name}_DIR STREQUAL expected)
    message(FATAL_ERROR "CORVANE_PACKAGE needs -DCORVANE_${name}_DIR=${expected} "
      "(it is \"${CORVANE_${name}_DIR}\"): the package installs there")
  endif()
endforeach()

set(packaging_source ${CMAKE_CURRENT_LIST_DIR})
set(packaging_build ${CMAKE_BINARY_DIR}/packaging)

# The unit is the one `corvane -i` writes, so that its sandbox is kept in one
# place; only its paths are turned into the installed ones.
add_custom_command(OUTPUT ${packaging_build}/corvane.service
  COMMAND ${packaging_source}/make-unit $<TARGET_FILE:corvane> ${packaging_build}/corvane.service
  DEPENDS corvane ${packaging_source}/make-unit
  COMMENT "Writing the packaged corvane.service with corvane -i" VERBATIM)
# config.ini.example with the package's settings: loopback only, and client
# paths kept under the state directory.
add_custom_command(OUTPUT ${packaging_build}/config.ini
  COMMAND ${packaging_source}/make-config ${PROJECT_SOURCE_DIR}/config.ini.example
    ${packaging_build}/config.ini
  DEPENDS ${PROJECT_SOURCE_DIR}/config.ini.example ${packaging_source}/make-config
  COMMENT "Writing the packaged config.ini" VERBATIM)
add_custom_target(corvane_package_files ALL
  DEPENDS ${packaging_build}/corvane.service ${packaging_build}/config.ini)

install(TARGETS corvane RUNTIME DESTINATION sbin)
install(TARGETS corvane-cli RUNTIME DESTINATION bin)
install(FILES ${packaging_build}/corvane.service DESTINATION /lib/systemd/system)
# Not readable by others from the first byte on disk: it holds the FTP
# password once set; postinst gives it to group corvane.
install(FILES ${packaging_build}/config.ini DESTINATION /etc/corvane
  PERMISSIONS OWNER_READ OWNER_WRITE GROUP_READ)
install(FILES ${PROJECT_SOURCE_DIR}/README.md DESTINATION share/doc/corvane)

file(WRITE ${packaging_build}/conffiles "/etc/corvane/config.ini\n")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME corvane)
set(CPACK_PACKAGE_VERSION ${PROJECT_VERSION})
set(CPACK_PACKAGE_CONTACT "Corvane developers <corvane@localhost>")
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "mail gateway for thin clients")
set(CPACK_PACKAGE_DESCRIPTION "Corvane serves handsets and push-mail front ends over a small enciphered \
request protocol and acts for them as a full mail client: it lists and fetches POP3 mail, \
sends, replies and forwards over SMTP, saves or uploads attachments, and polls registered \
accounts for new mail.

The package runs it as the systemd service corvane.service, as the system user corvane, \
listening on 127.0.0.1 until /etc/corvane/config.ini says otherwise.")
set(CPACK_DEBIAN_PACKAGE_SECTION mail)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_DEPENDS adduser)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${packaging_source}/postinst ${packaging_source}/prerm ${packaging_source}/postrm
  ${packaging_build}/conffiles)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
# /etc and /lib lie outside the /usr prefix: install into a staging root.
set(CPACK_SET_DESTDIR ON)
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ
  GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
set(CPACK_STRIP_FILES ON)
include(CPack)
