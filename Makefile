# Entry points; the work is done by scripts/ and the CMake presets.
.PHONY: build test test-asan test-tsan demo sandbox bench package clean

build:
	scripts/install-deps
	scripts/build dev

test:
	scripts/test dev

test-asan:
	scripts/test asan

test-tsan:
	scripts/test tsan

demo:
	scripts/demo

# A rehearsal sandbox in SANDBOX (default build/sandbox); docs/sandbox.md.
SANDBOX ?= build/sandbox
sandbox:
	scripts/install-deps
	scripts/build dev
	scripts/sandbox start $(SANDBOX)

package:
	scripts/package

bench:
	scripts/install-deps
	scripts/build release
	bench/run

clean:
	rm -rf build
