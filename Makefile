# Two commands for a fresh Debian 12 machine:
#   make run   installs what is missing, builds, and starts Quillane
#   make test  installs what is missing, builds, and runs every test
#   make package  builds the Debian package into build-package/ and checks it with lintian
JOBS ?= $(shell nproc)
BUILD := build

.PHONY: deps configure build run test bench package clean

deps:
	@scripts/install-deps

configure: deps
	@test -f $(BUILD)/build.ninja || cmake --preset dev

build: configure
	cmake --build $(BUILD) -j $(JOBS)

run: build
	@if [ -x $(BUILD)/bin/quillane ]; then $(BUILD)/bin/quillane; \
	else $(BUILD)/bin/quillane-cli inspect samples/*; fi

test: build
	scripts/run-tests $(BUILD)

bench: deps
	@test -f build-release/build.ninja || cmake --preset release -DQUILLANE_BUILD_BENCH=ON -DQUILLANE_BUILD_TESTS=ON
	cmake --build build-release -j $(JOBS)

# The package is built from a copy of the tree (tracked and new files, not the build folders)
# so that dpkg-buildpackage's files land in build-package/ rather than beside the checkout.
VERSION := $(shell sed -n '/^project/s/.*VERSION \([0-9.]*\).*/\1/p' CMakeLists.txt)
PKGSRC := build-package/quillane-$(VERSION)
package: deps
	rm -rf build-package && mkdir -p $(PKGSRC)
	git ls-files -co --exclude-standard -z | tar --null -cf - -T - --ignore-failed-read | tar -xf - -C $(PKGSRC)
	cd $(PKGSRC) && $(if $(shell command -v ccache),CMAKE_C_COMPILER_LAUNCHER=ccache CMAKE_CXX_COMPILER_LAUNCHER=ccache) \
		dpkg-buildpackage -us -uc -b -j$(JOBS)
	lintian --fail-on error,warning build-package/quillane_$(VERSION)_*.deb
	@ls -l build-package/*.deb

clean:
	rm -rf $(BUILD) build-asan build-release build-package
