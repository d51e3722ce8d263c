# Stand-in for the build system's package.mk: BuildPackage reads the package's definition and
# makes the steps targets of their own (prepare, compile, install into PKG_INSTALL_DIR).
PKG_BUILD_DIR ?= $(BUILD_DIR)/$(PKG_NAME)-$(PKG_VERSION)
PKG_INSTALL_DIR ?= $(PKG_BUILD_DIR)/ipkg-install

define BuildPackage
$(eval $(Package/$(1)))
.PHONY: prepare compile install
prepare:
	$$(Build/Prepare)
compile: prepare
	$$(Build/Configure)
	$$(Build/Compile)
install: compile
	$$(call Package/$(1)/install,$$(PKG_INSTALL_DIR))
endef
