# Two commands for a fresh Debian 12 machine:
#   make run   installs what is missing, builds, and starts Quillane
#   make test  installs what is missing, builds, and runs every test
#   make package  builds the Debian package into build-package/ and checks it with lintian
#   make fuzz  builds the fuzz targets with clang and the sanitizers (build-fuzz/) and runs
#              each for FUZZ_SECONDS; what a target finds is left in build-fuzz/ as crash-*
#   make asan  builds with AddressSanitizer and UBSan (build-asan/) and runs every test there;
#              any report fails the run
#   make tsan  builds with ThreadSanitizer (build-tsan/) and runs the hot-folder and batch tests
#              there, TSAN_REPEAT times each (default 1); any report fails the test. Not in `make test`
#   make quick   the tests without the label `slow` (no end-to-end, bus, install or fuzz runs)
#   make tidy    clang-tidy with the project's .clang-tidy over every source file; any finding fails
#   make screenshots  renders the window, its popups, the comparison and each settings tab in every language
#              to build/screenshots/
JOBS ?= $(shell nproc)
BUILD := build

FUZZ_SECONDS ?= 60
FUZZ_TARGETS := image_fuzz_png image_fuzz_jpeg image_fuzz_webp image_fuzz_heic image_fuzz_avif image_fuzz_jxl

.PHONY: deps configure build run test quick tidy screenshots bench package fuzz asan tsan clean

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

quick: build
	scripts/run-tests $(BUILD) -LE slow

tidy: build
	scripts/run-tidy $(BUILD)

screenshots: build
	rm -rf $(BUILD)/screenshots
	QT_QPA_PLATFORM=offscreen $(BUILD)/bin/quillane-screenshots $(BUILD)/screenshots
	@ls $(BUILD)/screenshots | wc -l | xargs printf '%s screenshots in $(BUILD)/screenshots/\n'

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

fuzz: deps
	@test -f build-fuzz/build.ninja || cmake --preset fuzz
	cmake --build build-fuzz -j $(JOBS) --target image_fuzz_seeds request_reader_fuzz $(FUZZ_TARGETS)
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp build-fuzz/bin/image_fuzz_seeds build-fuzz/fuzz-corpus
	cd build-fuzz && export LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp && for target in $(FUZZ_TARGETS); do \
	  format=$${target#image_fuzz_}; mkdir -p fuzz-corpus/$$format-found; \
	  bin/$$target -max_total_time=$(FUZZ_SECONDS) -rss_limit_mb=3072 fuzz-corpus/$$format-found fuzz-corpus/$$format \
	    || exit 1; \
	done
	cd build-fuzz && bin/request_reader_fuzz -max_total_time=$(FUZZ_SECONDS) -max_len=2048

# Every process the tests start (the CLI, the service, helpers) writes its AddressSanitizer and
# LeakSanitizer reports to build-asan/sanitizer-reports/report.PROGRAM.PID, so that a report from
# a child process whose exit status a test expected fails the run too; each report is printed at
# the end, and any error among them (a warning alone is shown but passes) fails the run. UBSan
# (which this toolchain's combined runtime lets write to standard error only) stops the process.
SANITIZER_REPORTS := $(CURDIR)/build-asan/sanitizer-reports
asan: deps
	@test -f build-asan/build.ninja || cmake --preset asan
	cmake --build build-asan -j $(JOBS)
	rm -rf $(SANITIZER_REPORTS) && mkdir -p $(SANITIZER_REPORTS)
	@status=0; \
	LSAN_OPTIONS=suppressions=$(CURDIR)/tests/lsan.supp:print_suppressions=0 \
	ASAN_OPTIONS=log_path=$(SANITIZER_REPORTS)/report:log_exe_name=1:print_suppressions=0 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1:log_path=$(SANITIZER_REPORTS)/report:log_exe_name=1 \
		scripts/run-tests build-asan || status=$$?; \
	for report in $(SANITIZER_REPORTS)/report.*; do \
	  [ -e "$$report" ] || continue; echo "=== $$report"; cat "$$report"; \
	  if grep -qE 'ERROR: [A-Za-z]+Sanitizer|runtime error:' "$$report"; then status=1; fi; \
	done; \
	[ $$status -eq 0 ] && echo "make asan: no sanitizer reports" || echo "make asan: FAILED (reports above, or failing tests)"; \
	exit $$status

# Qt's own locks are invisible to ThreadSanitizer: the test executables there tell it of the
# hand-offs made through Qt (tests/support/tsan_qt_handoffs.cpp), and tests/tsan.supp names
# what is left of Qt's, GLib's and libjxl's bookkeeping.
TSAN_REPEAT ?= 1
tsan: deps
	@test -f build-tsan/build.ninja || cmake --preset tsan
	cmake --build build-tsan -j $(JOBS) --target hotfolders_tests batch_tests
	TSAN_OPTIONS=suppressions=$(CURDIR)/tests/tsan.supp:halt_on_error=1:second_deadlock_stack=1 \
		scripts/run-tests build-tsan -L '^(hotfolders|batch)' --repeat until-fail:$(TSAN_REPEAT)

clean:
	rm -rf $(BUILD) build-asan build-tsan build-release build-package build-fuzz
