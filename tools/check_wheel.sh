#!/usr/bin/env bash
# Installs a built wheel into a fresh virtual environment outside the repository and uses it with no
# compiler reachable (PATH is an empty folder): the command on a bundled table and a few Python calls. Usage: tools/check_wheel.sh dist/veltrane-*.whl
set -euo pipefail
wheel=$(realpath "$1")
python=${PYTHON:-python3}
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
"$python" -m venv "$work/venv"
"$work/venv/bin/python" -m pip install -q "$wheel"
mkdir "$work/bin"
cd "$work"
env -i HOME="$work" PATH="$work/bin" "$work/venv/bin/veltrane" show SULT --sex u --rows 3
env -i HOME="$work" PATH="$work/bin" "$work/venv/bin/veltrane" show SOA3299 --duration 1 --rows 3
env -i HOME="$work" PATH="$work/bin" "$work/venv/bin/python" - "$work/venv" <<'PY'
import shutil
import sys

import veltrane
from veltrane import LifeTable
from veltrane.contingencies import annuity

assert veltrane.__file__.startswith(sys.argv[1]), veltrane.__file__
assert not any(shutil.which(c) for c in ("cc", "c++", "gcc", "g++")), "a compiler is reachable"
table = LifeTable("SULT", "u", interest_rate=0.05)
assert abs(annuity(table, 65) - 13.549790037743) < 1e-9
print("the wheel works from", veltrane.__file__)
PY
