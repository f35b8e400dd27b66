# Two commands for a fresh Debian 12 machine:
#   make run   installs what is missing, builds, and starts Quillane
#   make test  installs what is missing, builds, and runs every test
JOBS ?= $(shell nproc)
BUILD := build

.PHONY: deps configure build run test bench clean

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

clean:
	rm -rf $(BUILD) build-asan build-release
