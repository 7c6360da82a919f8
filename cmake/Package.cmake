# The Debian package, made by CPack from the install rules (`make package` at
# the top builds it from a build folder of its own, without tests). Its
# dependencies are computed by dpkg-shlibdeps from the installed binaries, so
# they name exactly the shared libraries the program loads and nothing that
# only builds or tests it.

set(ARBO_PACKAGE_MAINTAINER "Merrow Tuning Arbo developers <arbo@example.org>" CACHE STRING
    "Name and address in the package's Maintainer field")

set(CPACK_GENERATOR DEB)
set(CPACK_PACKAGE_NAME merrow-tuning-arbo)
set(CPACK_PACKAGE_VERSION "${PROJECT_VERSION}")
set(CPACK_PACKAGE_CONTACT "${ARBO_PACKAGE_MAINTAINER}")
set(CPACK_PACKAGING_INSTALL_PREFIX /usr)
set(CPACK_STRIP_FILES ON)
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "musical instrument for just intonation")
# The extended description under the synopsis above; CPack indents it and
# marks the empty line as a paragraph break.
set(CPACK_DEBIAN_PACKAGE_DESCRIPTION "Merrow Tuning Arbo plays chords of exact ratios. Its notes form a lattice
that grows from the 1/1 by steps of the primes 2 to 31; clicking a ball
starts or stops its note, and every sounding note is shown as a card with
staff notation, cents from equal temperament, ratio and frequency.

The sound comes from Pure Data patches run inside the program. Notes also
come from the computer keyboard, MIDI, OSC and hand-held RFID wands (the
arbo-wand tool imitates one), and MIDI out passes the exact pitches on with
MPE or the MIDI Tuning Standard.")
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_SECTION sound)
set(CPACK_DEBIAN_PACKAGE_PRIORITY optional)
set(CPACK_DEBIAN_PACKAGE_HOMEPAGE "${ARBO_HOMEPAGE_URL}")
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_COMPRESSION_TYPE xz)
# Directories as Debian wants them, whatever the builder's umask.
set(CPACK_INSTALL_DEFAULT_DIRECTORY_PERMISSIONS
    OWNER_READ OWNER_WRITE OWNER_EXECUTE GROUP_READ GROUP_EXECUTE WORLD_READ WORLD_EXECUTE)
include(CPack)
