# The two set-up commands of the README: `make run` and `make test`.
# Both install any missing Debian package first, then configure and build with CMake presets.

.PHONY: run test deps build build-ci bench format clean

deps:
	@./scripts/install-deps

build: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target kestrel

build-ci: deps
	@cmake --preset ci >/dev/null
	@cmake --build --preset ci

run: build
	@./build/release/cli/kestrel $(ARGS)

test: build-ci
	@ctest --preset ci

bench: deps
	@cmake --preset release >/dev/null
	@cmake --build --preset release --target kestrel-bench-claude kestrel-bench-ledger kestrel-bench-scan kestrel-bench-many-files kestrel-bench-queries kestrel-bench-readers
	@./build/release/bench/kestrel-bench-claude $(ARGS)

format:
	@find core cli tests bench tools -name '*.cpp' -o -name '*.hpp' | xargs clang-format -i

clean:
	@rm -rf build
