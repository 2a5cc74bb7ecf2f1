# Set-up, build and test of the library on a Debian machine. `make demo` and `make test` are
# all a fresh machine needs: both install missing packages first.

BUILD ?= build
SANITIZE_BUILD ?= build-sanitize
COVERAGE_BUILD ?= build-coverage
JOBS ?= $(shell nproc)
CMAKE_FLAGS ?=

# The Debian packages the build needs.
PACKAGES := cmake make g++ pkg-config zlib1g-dev libfmt-dev libboost-dev libgtest-dev \
            libgmock-dev libbenchmark-dev libcli11-dev clang-format \
            nlohmann-json3-dev libpugixml-dev libxml2-utils \
            libisal-dev libdeflate-dev pigz libhdf5-dev \
            python3 python3-zarr pybind11-dev python3-dev python3-numpy python3-dask \
            python3-distributed python3-pytest gcovr

SUDO := $(shell [ "$$(id -u)" = 0 ] || echo sudo)

.PHONY: all deps configure build test demo bench sanitize coverage format clean

all: build

# Installs what is missing; says nothing and asks nothing when all is there.
# One query for all packages: a query each costs seconds on a busy machine.
deps:
	@installed=" $$(dpkg-query -W -f='$${db:Status-Status}:$${Package} ' $(PACKAGES) 2>/dev/null) "; \
	missing=""; \
	for p in $(PACKAGES); do \
	  case "$$installed" in *" installed:$$p "*) ;; *) missing="$$missing $$p" ;; esac; \
	done; \
	if [ -n "$$missing" ]; then \
	  echo "Installing:$$missing"; \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get update -qq && \
	  $(SUDO) env DEBIAN_FRONTEND=noninteractive apt-get install -y -qq --no-install-recommends $$missing; \
	fi

# Configures again only when the flags differ from the last time (kept beside the cache); the
# build itself reconfigures when a CMakeLists.txt changes.
CONFIGURE_FLAGS = -DCMAKE_BUILD_TYPE=Release -DTARNIO_BUILD_BENCHMARKS=ON -DTARNIO_WERROR=ON \
                  $(CMAKE_FLAGS)
configure: deps
	@if [ "$$(cat $(BUILD)/configured-with 2>/dev/null)" != "$(strip $(CONFIGURE_FLAGS))" ]; then \
	  cmake -S . -B $(BUILD) $(CONFIGURE_FLAGS) > /dev/null && \
	  echo "$(strip $(CONFIGURE_FLAGS))" > $(BUILD)/configured-with; \
	fi

build: configure
	cmake --build $(BUILD) -j $(JOBS)

test: build
	ctest --test-dir $(BUILD) --output-on-failure -j $(JOBS)

demo: build
	$(BUILD)/tools/tarn/tarn types
	$(BUILD)/tools/tarn/tarn props tests/data/props/toolbox_params.xml --get 'lasers(0,1).name'
	$(BUILD)/tools/tarn/tarn props tests/data/props/toolbox_params.xml --get stage
	$(BUILD)/tools/tarn/tarn demo $(BUILD)/demo.tbf

bench: build
	for b in $(BUILD)/bench/tarnio_*_benchmark; do $$b || exit 1; done
	if [ -d $(BUILD)/python/tarnio ]; then \
	  PYTHONPATH=$(BUILD)/python /usr/bin/python3 bench/python_benchmark.py $(BUILD); fi

sanitize: deps
	@cmake -S . -B $(SANITIZE_BUILD) -DCMAKE_BUILD_TYPE=Debug -DTARNIO_SANITIZE=ON \
	  -DTARNIO_WERROR=ON $(CMAKE_FLAGS) > /dev/null
	cmake --build $(SANITIZE_BUILD) -j $(JOBS)
	ctest --test-dir $(SANITIZE_BUILD) --output-on-failure -j $(JOBS)

# Line and branch coverage of the library and the tool by the whole suite, from an unoptimised
# build; the counters of an earlier run are cleared first, and a failing test does not stop the
# report.
coverage: deps
	@cmake -S . -B $(COVERAGE_BUILD) -DCMAKE_BUILD_TYPE=Debug -DCMAKE_CXX_FLAGS="--coverage -O0" \
	  -DCMAKE_EXE_LINKER_FLAGS=--coverage -DCMAKE_SHARED_LINKER_FLAGS=--coverage \
	  -DTARNIO_BUILD_BENCHMARKS=OFF -DTARNIO_BUILD_PYTHON=OFF -DTARNIO_WERROR=ON $(CMAKE_FLAGS) > /dev/null
	cmake --build $(COVERAGE_BUILD) -j $(JOBS)
	find $(COVERAGE_BUILD) -name '*.gcda' -delete
	-ctest --test-dir $(COVERAGE_BUILD) --output-on-failure -j $(JOBS)
	gcovr --root . --object-directory $(COVERAGE_BUILD) --filter 'tarnio/' --filter 'tools/tarn/' \
	  --exclude '.*_test\.cc$$' --exclude 'tarnio/testing/' --exclude-unreachable-branches \
	  --exclude-throw-branches --print-summary --txt $(COVERAGE_BUILD)/coverage.txt
	@tail -n 3 $(COVERAGE_BUILD)/coverage.txt

# Rewrites the sources in the project's format.
format:
	git ls-files '*.h' '*.cc' | xargs clang-format -i

clean:
	rm -rf $(BUILD) $(SANITIZE_BUILD) $(COVERAGE_BUILD)
