# Entry points; the work is done by scripts/ and the CMake presets.
.PHONY: build test test-asan test-tsan demo bench package clean

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

package:
	scripts/package

bench:
	scripts/install-deps
	scripts/build release
	bench/run

clean:
	rm -rf build
