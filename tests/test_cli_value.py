"""``veltrane value``: totals printed, the per-policy file written, refusals as usage errors."""

from __future__ import annotations

import polars as pl
import pytest

from veltrane.cli import main
from veltrane.valuation import Product, YieldCurve, value

BOOK = pl.DataFrame(
    {"table_name": ["SULT"] * 3, "sex": ["u"] * 3, "age": [40, 50, 65], "sum": [1e3, 2e3, 5e2]}
)


@pytest.mark.parametrize("basis", ["rate", "curve"])
def test_value_prints_the_totals_and_writes_the_results(tmp_path, capsys, basis):
    policies, out = tmp_path / "book.parquet", tmp_path / "results.parquet"
    BOOK.write_parquet(policies)
    arguments = ["value", str(policies), "--death-benefit", "sum", "--term", "30", "-o", str(out)]
    if basis == "rate":
        arguments += ["--rate", "0.02"]
        expected = value(BOOK, Product(death_benefit="sum", term=30), interest=0.02)
    else:
        curve = tmp_path / "curve.csv"
        pl.DataFrame({"term": [1.0, 10.0, 30.0], "spot_rate": [0.01, 0.02, 0.025]}).write_csv(curve)
        arguments += ["--curve", str(curve)]
        expected = value(
            BOOK, Product(death_benefit="sum", term=30), curve=YieldCurve([1, 10, 30], [0.01, 0.02, 0.025])
        )
    assert main(arguments) == 0
    printed = dict(line.split("\t") for line in capsys.readouterr().out.splitlines())
    assert printed["policies"] == "3"
    assert float(printed["pv_benefits"]) == pytest.approx(expected.pv_benefits.sum(), rel=1e-12)
    assert pl.read_parquet(out).equals(expected.to_frame())


@pytest.mark.parametrize(
    ("extra", "message"),
    [
        (["--death-benefit", "nosuch", "--rate", "0.02"], "column 'nosuch'"),
        (["--death-benefit", "1", "--rate", "0.02", "--term", "-3"], "term must be a whole number"),
    ],
)
def test_bad_input_is_a_usage_error(tmp_path, capsys, extra, message):
    policies = tmp_path / "book.parquet"
    BOOK.write_parquet(policies)
    assert main(["value", str(policies), *extra]) == 2
    assert message in capsys.readouterr().err
