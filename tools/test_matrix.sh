#!/usr/bin/env bash
# Runs the test suite on every CPython 3.11-3.14 this machine has: each interpreter gets a virtual
# environment of its own (.venv-3.X) with the package built and installed into it. CPython 3.14 runs
# through ../shared/tools/python314.sh when that script is beside the checkout.
# Prints one summary line per interpreter and exits non-zero if any suite failed.
set -uo pipefail
cd "$(dirname "$0")/.."
deps=(numpy polars scikit-build-core cmake ninja pytest hypothesis pandas matplotlib 'dask[distributed]' tqdm mypy)
pyenv_root=${PYENV_ROOT:-$HOME/.pyenv}
summary=()
status=0

interpreter() {  # the newest python3.X under pyenv, else on PATH; one that runs
  local minor=$1 found
  for found in $(ls -d "$pyenv_root"/versions/3."$minor".*/bin/python 2>/dev/null | sort -rV) \
               $(command -v "python3.$minor" 2>/dev/null); do
    "$found" -c 'import sys' >/dev/null 2>&1 && { echo "$found"; return; }
  done
}

for minor in 11 12 13; do
  python=$(interpreter "$minor") || true
  if [ -z "${python:-}" ]; then
    summary+=("3.$minor: not found")
    continue
  fi
  venv=.venv-3.$minor
  [ -x "$venv/bin/python" ] || "$python" -m venv "$venv"
  "$venv/bin/python" -m pip install -q --upgrade pip "${deps[@]}" &&
    "$venv/bin/python" -m pip install -q --no-build-isolation --no-deps -C build-dir="build/py3.$minor" . ||
    { summary+=("3.$minor: build failed"); status=1; continue; }
  log=$(mktemp)
  "$venv/bin/python" -m pytest -q -p no:cacheprovider | tee "$log"
  code=${PIPESTATUS[0]}
  summary+=("3.$minor ($("$venv/bin/python" -V 2>&1)): $(tail -n 1 "$log")")
  [ "$code" -eq 0 ] || status=1
  rm -f "$log"
done

if [ -x ../shared/tools/python314.sh ]; then
  log=$(mktemp)
  ../shared/tools/python314.sh | tee "$log"
  code=${PIPESTATUS[0]}
  summary+=("3.14: $(tail -n 1 "$log")")
  [ "$code" -eq 0 ] || status=1
  rm -f "$log"
else
  summary+=("3.14: ../shared/tools/python314.sh not found")
fi

printf '%s\n' "${summary[@]}"
exit $status
