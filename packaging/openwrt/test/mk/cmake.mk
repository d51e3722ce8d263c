# Stand-in for the build system's cmake.mk: configure with CMAKE_OPTIONS, build targets by name.
CMAKE_BINARY_DIR = $(PKG_BUILD_DIR)/openwrt-build

define Build/Configure
	cmake -S $(PKG_BUILD_DIR) -B $(CMAKE_BINARY_DIR) $(CMAKE_OPTIONS)
endef

define Build/Compile/Default
	cmake --build $(CMAKE_BINARY_DIR) $(if $(1),--target $(1))
endef
