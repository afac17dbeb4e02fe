# The front door: every check that CI runs is a target here. Each target installs what it needs (on
# Debian, as root or through sudo), configures, builds and runs.

.DEFAULT_GOAL := help
.PHONY: help deps build demo test metrics-test asan tsan soak fuzz model bench package-build package package-test \
	abi-reference docs lint format format-check

PACKAGES := ca-certificates ccache cmake g++ libnats-dev libprotobuf-dev libprotozero-dev libqt5sql5-sqlite libtbb-dev make ninja-build \
	pkg-config prometheus-cpp-dev protobuf-compiler python3 qtbase5-dev systemtap-sdt-dev
SOURCES = $(shell git ls-files '*.h' '*.cpp')
INSTALL = tools/install-deps
CONFIGURE = cmake $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache) --preset

help:
	@sed -n 's/^\([a-z-]*\):.*## /make \1\t/p' $(MAKEFILE_LIST) | expand -t 20

deps: ## install what is missing to build and test
	@$(INSTALL) $(PACKAGES)

build: deps ## build everything, optimised
	$(CONFIGURE) release
	cmake --build --preset release

demo: deps ## build what it takes, and play a session through the bus
	$(CONFIGURE) release
	cmake --build --preset release --target lxclient
	build/release/client/lxclient

test: build ## build, and run every test
	ctest --preset release

metrics-test: build ## have the client's metrics judged by the tools that read them
	@$(INSTALL) prometheus python3-prometheus-client
	tools/check-metrics build/release/client/lxclient

asan: deps ## every test under AddressSanitizer, UndefinedBehaviorSanitizer and the leak check
	$(CONFIGURE) asan
	cmake --build --preset asan
	ctest --preset asan

tsan: deps ## every test under ThreadSanitizer
	$(CONFIGURE) tsan
	cmake --build --preset tsan
	ctest --preset tsan

soak: build ## ten million deliveries under each idle policy; a slow board; five million quotes in bounded memory
	LXTEST_IDLE=poll build/release/tests/stress/stress_ledger --long
	LXTEST_IDLE=park build/release/tests/stress/stress_ledger --long
	LXTEST_IDLE=poll build/release/tests/stress/stress_slow_board --long
	LXTEST_IDLE=park build/release/tests/stress/stress_slow_board --long
	tools/check-memory build/release/client/lxclient

fuzz: deps ## feed the quote reader with what a fuzzer thinks of, for a minute
	@$(INSTALL) clang-14 libclang-rt-14-dev
	tests/fuzz/run

model: ## check the model of the unregister barrier exhaustively
	@$(INSTALL) gcc spin
	tests/model/check

bench: deps ## measure, next to what a user would pick instead; writes bench/results.md
	@$(INSTALL) cppzmq-dev libbenchmark-dev libconcurrentqueue-dev libzmq3-dev
	$(CONFIGURE) bench
	cmake --build --preset bench
	bench/run.py build/bench $(if $(AGAINST),--against $(AGAINST))

package-build: deps
	$(CONFIGURE) package
	cmake --build --preset package

package: package-build ## the Debian packages, in build/package
	@$(INSTALL) dpkg-dev file
	cd build/package && rm -f *.deb && cpack -G DEB -D CMAKE_SUPPRESS_DEVELOPER_WARNINGS=ON

package-test: package ## build against the packages, from outside the tree; check the binary interface
	@$(INSTALL) abigail-tools clang-14
	tools/abi check
	tests/package/run

abi-reference: package-build ## write the binary interface that package-test asks for anew
	@$(INSTALL) abigail-tools
	tools/abi write

docs: deps ## the API reference, in build/docs
	@$(INSTALL) doxygen
	tools/make-docs

lint: deps ## static analysis
	@$(INSTALL) clang-tidy-14 clazy
	tools/lint

format: ## lay the sources out as .clang-format says
	@$(INSTALL) clang-format-14
	@clang-format-14 -i $(SOURCES)

format-check: ## fail where `make format` would change something
	@$(INSTALL) clang-format-14
	@clang-format-14 --dry-run --Werror $(SOURCES)
