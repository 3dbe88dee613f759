# The two set-up commands of the README: `make run` and `make test`.
# Both install any missing Debian package first, then configure and build with CMake presets.

.PHONY: run test sanitize deps build build-ci build-fuzz fuzz bench format clean

deps:
	@./scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target kestrel kestrel-app

build-ci: deps
	@cmake --preset ci >/dev/null
	@cmake --build --preset ci

# The desktop app when there is a display; otherwise the command line's overview, and how to
# start the app (or see it: --screenshot draws its pages without a display). ARGS="..." runs the
# command line with them; APP_ARGS="..." goes to the app.
run: build
	@if [ -n "$(ARGS)" ]; then \
	  ./build/release/cli/kestrel $(ARGS); \
	elif [ -n "$${DISPLAY:-}" ] || [ -n "$${WAYLAND_DISPLAY:-}" ]; then \
	  ./build/release/app/kestrel-app $(APP_ARGS); \
	else \
	  ./build/release/cli/kestrel; \
	  echo; \
	  echo "No display: the desktop app needs one (run ./build/release/app/kestrel-app on your desktop, or add --screenshot DIR to draw its pages to PNG here)."; \
	fi

# Then each fuzz harness for a few seconds over its corpus (clang 16 with the sanitizers; the
# fuzz preset builds the harnesses and the core libraries they use, nothing else).
# A test that fails is run once more (--repeat until-pass:2) before the target fails: the file
# watcher's tests wait on inotify and have, once in dozens of runs on a loaded machine, missed a
# root created while they waited. A test that fails twice still fails the target.
test: build-ci
	@ctest --preset ci --repeat until-pass:2
	@$(MAKE) --no-print-directory build-fuzz
	@ctest --preset fuzz

build-fuzz: deps
	@cmake --preset fuzz >/dev/null
	@cmake --build --preset fuzz

# Every harness for FUZZ_SECONDS (default 300) each; what adds coverage joins tests/fuzz/corpus.
# FUZZERS="claude codex" runs only those.
fuzz: build-fuzz
	@FUZZ_SECONDS=$(or $(FUZZ_SECONDS),300) ./scripts/fuzz.sh $(FUZZERS)

# The whole suite under ASan + UBSan (the dev preset: a debug build). Not part of `test` (it takes
# far longer); CI runs it after `test`. Any UBSan report fails the test it occurs in instead of scrolling past.
sanitize: deps
	@cmake --preset dev -DKESTREL_BUILD_BENCH=OFF >/dev/null
	@cmake --build --preset dev
	@ASAN_OPTIONS=detect_leaks=1 \
	  UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 ctest --preset dev -j2 --repeat until-pass:2

bench: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target kestrel-bench-claude kestrel-bench-ledger kestrel-bench-scan kestrel-bench-many-files kestrel-bench-queries kestrel-bench-readers
	@./build/release/bench/kestrel-bench-claude $(ARGS)

format:
	@find core cli tests bench tools -name '*.cpp' -o -name '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
