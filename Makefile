# Entry points of the project. Each target installs what it needs from
# Debian's archive first (skipped at once when everything is present).
#
#   make demo                 build and run the example agent
#   make test                 build and run every test
#   make test SANITIZE=address,undefined
#                             the same suite under the sanitizers
#   make test SANITIZE=thread the tests that run more than one thread (ctest
#                             label `threads`) under ThreadSanitizer; only
#                             their executables are built
#   make bench                build and run the benchmarks, then the summary
#                             table of bench/summary.sh
#   make soak [SOAK_SECONDS=600]
#                             the example agent in real time with a report
#                             every second to a slow reader; fails if its
#                             resident memory or descriptor count grows
#   make fuzz [FUZZ_SECONDS=60]
#                             build the fuzz targets with clang and run each
#                             for FUZZ_SECONDS under the sanitizers
#   make install PREFIX=/usr/local

SHELL := /bin/bash
SANITIZE ?=
PREFIX ?= /usr/local
JOBS ?= $(shell nproc)
BUILD_TYPE ?= RelWithDebInfo

ifeq ($(SANITIZE),)
BUILD_DIR ?= build
else
BUILD_DIR ?= build-$(subst $(comma),-,$(SANITIZE))
endif
comma := ,

PACKAGES := g++ make cmake ninja-build pkg-config libevent-dev libfmt-dev \
            rapidjson-dev libboost-dev googletest libgtest-dev libgmock-dev \
            libbenchmark-dev iproute2
# ccache, when the machine has it, for the repeated builds of development.
LAUNCHER := $(if $(shell command -v ccache),-DCMAKE_C_COMPILER_LAUNCHER=ccache -DCMAKE_CXX_COMPILER_LAUNCHER=ccache)
FUZZ_PACKAGES := clang-14 libfuzzer-14-dev
FUZZ_SECONDS ?= 60
FUZZ_DIR ?= build-fuzz

.PHONY: all deps fuzz-deps configure build test demo bench soak fuzz install clean

all: build

# Installs those of the packages given that are missing.
define install_missing
	@missing=$$(for p in $(1); do \
	    dpkg-query -W -f='$${Status}\n' $$p 2>/dev/null | grep -q 'install ok installed' || echo $$p; \
	  done); \
	if [ -n "$$missing" ]; then \
	  echo "Installing missing packages:" $$missing; \
	  export DEBIAN_FRONTEND=noninteractive; \
	  apt-get update -qq && apt-get install -y -qq --no-install-recommends $$missing </dev/null; \
	fi
endef

deps:
	$(call install_missing,$(PACKAGES))

fuzz-deps: deps
	$(call install_missing,$(FUZZ_PACKAGES))

# ThreadSanitizer checks the threaded tests only: no benchmarks, no examples,
# and tests/CMakeLists.txt leaves out every suite without threads.
THREADS_ONLY := $(findstring thread,$(SANITIZE))

$(BUILD_DIR)/build.ninja: | deps
	cmake -S . -B $(BUILD_DIR) -G Ninja -DCMAKE_BUILD_TYPE=$(BUILD_TYPE) \
	  -DKESTO_SANITIZE=$(SANITIZE) -DCMAKE_INSTALL_PREFIX=$(PREFIX) $(LAUNCHER) \
	  $(if $(SANITIZE),-DKESTO_BUILD_BENCH=OFF) $(if $(THREADS_ONLY),-DKESTO_BUILD_EXAMPLES=OFF)

configure: deps $(BUILD_DIR)/build.ninja

build: configure
	cmake --build $(BUILD_DIR) -j $(JOBS)

test: build
	cd $(BUILD_DIR) && ctest --output-on-failure -j $(JOBS) --timeout 600 $(if $(THREADS_ONLY),-L threads)

# The demo builds the example agent, the kesto command and the libraries
# they link, nothing else. Its last part runs the agent in the background,
# reads its output until it says it is serving (no guessing how long that
# takes), looks inside it with kesto, then reads the rest of its output,
# which lets it finish.
demo: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target demo_agent kesto
	$(BUILD_DIR)/examples/demo_agent
	@echo
	@echo "== The agent again, 50 ms of real loop and 2 virtual seconds, under TRACE=TaskScheduler/8 (first 40 lines):"
	@TRACE=TaskScheduler/8 $(BUILD_DIR)/examples/demo_agent 0.05 2 2>&1 | head -n 40
	@echo
	@echo "== The agent in the background: 1 s of real loop, 10 virtual minutes, then 3 s of serving its endpoint"
	@exec 3< <($(BUILD_DIR)/examples/demo_agent 1 600 --serve 3); \
	  pid=; \
	  while read -r line <&3; do \
	    case "$$line" in Endpoint:*) pid=$${line##*/};; "Serving for"*) break;; esac; \
	  done; \
	  echo "\$$ kesto list"; $(BUILD_DIR)/kesto/kesto list; \
	  echo; echo "\$$ kesto show $$pid   (first 40 lines)"; \
	  $(BUILD_DIR)/kesto/kesto show $$pid | head -n 40; \
	  echo; echo "\$$ kesto latency $$pid"; $(BUILD_DIR)/kesto/kesto latency $$pid; \
	  echo; echo "\$$ kesto timeline $$pid > /tmp/demo_agent_timeline_live.json"; \
	  $(BUILD_DIR)/kesto/kesto timeline $$pid > /tmp/demo_agent_timeline_live.json && \
	    echo "$$(wc -c < /tmp/demo_agent_timeline_live.json) bytes: open it in a trace viewer (README, \"When something goes wrong\")"; \
	  cat <&3 >/dev/null; \
	  echo; echo "The agent has finished. kesto --help lists the other commands."

bench: build
	@for b in $(BUILD_DIR)/bench/bench_*; do echo "== $$b"; $$b --benchmark_min_time=0.2 || exit 1; done
	@bench/summary.sh $(BUILD_DIR)

# Ten minutes of real time by default: not part of `make test`.
SOAK_SECONDS ?= 600
soak: configure
	cmake --build $(BUILD_DIR) -j $(JOBS) --target soak_agent
	SOAK_SECONDS=$(SOAK_SECONDS) $(BUILD_DIR)/examples/soak_agent

fuzz: fuzz-deps
	cmake -S . -B $(FUZZ_DIR) -G Ninja -DCMAKE_BUILD_TYPE=RelWithDebInfo \
	  -DCMAKE_C_COMPILER=clang-14 -DCMAKE_CXX_COMPILER=clang++-14 \
	  -DKESTO_SANITIZE=address,undefined -DKESTO_BUILD_FUZZ=ON \
	  -DKESTO_BUILD_TESTS=OFF -DKESTO_BUILD_BENCH=OFF -DKESTO_BUILD_EXAMPLES=OFF $(LAUNCHER)
	cmake --build $(FUZZ_DIR) -j $(JOBS)
	fuzz/run $(FUZZ_DIR) $(FUZZ_SECONDS)

install: build
	cmake --install $(BUILD_DIR)

clean:
	rm -rf build build-*
