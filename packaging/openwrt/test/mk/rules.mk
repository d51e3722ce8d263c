# Stand-in for the build system's rules.mk: the variables a package recipe uses.
BUILD_DIR ?= $(TOPDIR)/build_dir
INSTALL_DIR := install -d -m0755
INSTALL_BIN := install -m0755
INSTALL_CONF := install -m0600
CP := cp -fpR
