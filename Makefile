# The front door: every check that CI runs is one word here. `make deps` first on a new machine;
# demo, test and the rest install what is missing by themselves.

.DEFAULT_GOAL := help
.PHONY: help deps demo test format format-check

PACKAGES := ca-certificates ccache clang-format-14 cmake g++ libqt5sql5-sqlite libtbb-dev make \
	ninja-build pkg-config qtbase5-dev
CMAKE_FLAGS := $(if $(shell command -v ccache),-DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
SOURCES = $(shell git ls-files '*.h' '*.cpp')

help:
	@sed -n 's/^\([a-z-]*\):.*## /make \1\t/p' $(MAKEFILE_LIST) | expand -t 20

deps: ## install what is missing to build and test (Debian)
	@cmake/install-deps $(PACKAGES)

build/release/build.ninja: | deps
	cmake --preset release $(CMAKE_FLAGS)

build: build/release/build.ninja
	cmake --build --preset release

demo: build ## build, and play a session through the bus
	build/release/client/lxclient

test: build ## build, and run every test
	ctest --preset release

format: ## lay the sources out as .clang-format says
	clang-format-14 -i $(SOURCES)

format-check: deps ## fail where `make format` would change something
	clang-format-14 --dry-run --Werror $(SOURCES)
