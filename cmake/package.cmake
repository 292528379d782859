# Debian packages of everything that is installed: one, and one more for the component slurm; see scripts/package.sh, which configures for /usr and /etc.

set(CPACK_PACKAGE_NAME reservation-manager)
set(CPACK_PACKAGE_VENDOR "the reservation manager's maintainers")
set(CPACK_PACKAGE_CONTACT ${CPACK_PACKAGE_VENDOR})
set(CPACK_PACKAGE_DESCRIPTION_SUMMARY "decides which hosts a job may use for in-network reduction trees")
# The configuration file goes outside the prefix.
set(CPACK_SET_DESTDIR ON)
set(CPACK_GENERATOR DEB)
set(CPACK_STRIP_FILES ON)
set(CPACK_DEBIAN_FILE_NAME DEB-DEFAULT)
set(CPACK_DEBIAN_PACKAGE_MAINTAINER ${CPACK_PACKAGE_CONTACT})
set(CPACK_DEBIAN_PACKAGE_SECTION admin)
set(CPACK_DEBIAN_PACKAGE_SHLIBDEPS ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_STRICT_PERMISSION ON)
set(CPACK_DEBIAN_PACKAGE_CONTROL_EXTRA
  ${PROJECT_SOURCE_DIR}/packaging/debian/conffiles
  ${PROJECT_SOURCE_DIR}/packaging/debian/postinst
  ${PROJECT_SOURCE_DIR}/packaging/debian/prerm
  ${PROJECT_SOURCE_DIR}/packaging/debian/postrm)

set(CPACK_DEB_COMPONENT_INSTALL ON)
set(CPACK_DEBIAN_UNSPECIFIED_PACKAGE_NAME reservation-manager)
set(CPACK_DEBIAN_SLURM_PACKAGE_NAME reservation-manager-slurm)
set(CPACK_DEBIAN_SLURM_PACKAGE_DEPENDS slurm-client)
set(CPACK_DEBIAN_SLURM_PACKAGE_RECOMMENDS slurmctld)
set(CPACK_COMPONENT_SLURM_DESCRIPTION "keeps Slurm's jobs in the reservations of reservationd")
set(slurm_control ${PROJECT_SOURCE_DIR}/integrations/slurm/packaging/debian)
set(CPACK_DEBIAN_SLURM_PACKAGE_CONTROL_EXTRA
  ${slurm_control}/conffiles ${slurm_control}/postinst ${slurm_control}/prerm ${slurm_control}/postrm)
include(CPack)
