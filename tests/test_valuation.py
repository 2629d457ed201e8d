"""Portfolio valuation: per-policy values against the single-life functions, reserves, cash
flows, determinism over threads and blocks, and refusals of bad input."""

from __future__ import annotations

import warnings

import numpy as np
import polars as pl
import pytest

from veltrane import LifeTable
from veltrane.contingencies import annuity, insurance, net_premium, pure_endowment
from veltrane.tables.decrement import TableRegistry
from veltrane.valuation import Policies, Product, YieldCurve, value

RATE = 0.03
AGES = [25, 40, 55, 70, 90]


def close(actual, expected, rel=1e-12, scale=1e-3):
    # Relative, with an absolute floor for values that cancel to about 0 (reserves at issue).
    np.testing.assert_allclose(actual, expected, rtol=rel, atol=rel * scale)


def frame(table: str, sex: str, ages, **columns) -> pl.DataFrame:
    n = len(ages)
    return pl.DataFrame({"table_name": [table] * n, "sex": [sex] * n, "age": ages, **columns})


# fmt: off
REFERENCES = [
    (Product(death_benefit=1.0, term=20), lambda t, x: insurance(t, x, 20, i=RATE)),
    (Product(death_benefit=1.0), lambda t, x: insurance(t, x, i=RATE)),
    (Product(endowment=1.0, term=15), lambda t, x: pure_endowment(t, x, 15, i=RATE)),
    (Product(death_benefit=1, endowment=1, term=10), lambda *a: insurance(*a, 10, i=RATE, endowment=True)),
    (Product(survival_benefit=1.0), lambda t, x: annuity(t, x, i=RATE)),
    (Product(survival_benefit=1.0, term=12, due=False), lambda t, x: annuity(t, x, 12, i=RATE, due=False)),
    (Product(survival_benefit=1.0, term=30, deferral=5), lambda t, x: annuity(t, x, 25, i=RATE, defer=5)),
    (Product(survival_benefit=1.0, m=12), lambda t, x: annuity(t, x, i=RATE, m=12)),
    (Product(survival_benefit=1, term=20, m=4, due=False),
     lambda *a: annuity(*a, 20, i=RATE, m=4, due=False)),
]
# fmt: on


@pytest.mark.parametrize(("product", "reference"), REFERENCES)
@pytest.mark.parametrize(
    ("name", "sex", "keys"),
    [("SULT", "u", {}), ("IAM2012", "m", {"cohort": 1950}), ("CSO1980", "u", {"unisex_blend": 0.6})],
)
def test_present_values_equal_the_single_life_functions(product, reference, name, sex, keys):
    table = LifeTable(name, sex, **keys)
    result = value(
        frame(name, sex, AGES, **{k: [v] * len(AGES) for k, v in keys.items()}), product, interest=RATE
    )
    close(result.pv_benefits, reference(table, AGES))


@pytest.mark.parametrize("issue_age", [20, 35, 60])
@pytest.mark.parametrize("duration", [1, 3, 26, 40])
def test_select_policies_follow_their_diagonal(issue_age, duration):
    path = LifeTable("CSO2001", "m", duration=1).select_path(issue_age)
    attained = issue_age + duration - 1
    row = pl.DataFrame({"table_name": "CSO2001", "sex": "m", "issue_age": issue_age, "duration": duration})
    result = value(row, Product(death_benefit=1e3, endowment=1e3, term=15, premium=None), interest=RATE)
    close(result.pv_benefits, 1000.0 * insurance(path, attained, 15, i=RATE, endowment=True))
    # The net premium is fixed at issue: the in-force reserve is the prospective reserve of it.
    premium = 1000.0 * net_premium(path, issue_age, duration - 1 + 15, i=RATE, endowment=True)
    close(result.net_premium, premium)
    close(result.reserve, result.pv_benefits - premium * annuity(path, attained, 15, i=RATE), scale=1000.0)


def test_ratings_give_the_numbers_of_modify_qx():
    keys = {"age_shift": 3, "decrement_multiplier": 1.7, "aggravated_risk": 1.25}
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        table = LifeTable("SULT", "u")
        table.modify_qx(keys)
    ages = [20, 50, 80]
    policies = frame("SULT", "u", ages, **{k: [v] * 3 for k, v in keys.items()})
    result = value(policies, Product(death_benefit=1.0, survival_benefit=0.5), interest=RATE)
    close(result.pv_benefits, insurance(table, ages, i=RATE) + 0.5 * annuity(table, ages, i=RATE))


def test_reserves_satisfy_the_one_year_recursion():
    cover = Product(
        death_benefit=100, survival_benefit=3, endowment=50, term=25, premium=None, escalation=0.02
    )
    result = value(frame("SULT", "u", [30, 45, 60]), cover, interest=RATE, reserves_by_year=True)
    reserves, level = result.reserves, 1.02 ** np.arange(25)
    close(reserves[:, 0], result.reserve, rel=1e-10)
    for p, x in enumerate([30, 45, 60]):
        q = LifeTable("SULT", "u")._decrement[x : x + 25]
        ahead = np.append(reserves[p, 1:25], 50.0 * level[24])
        expected = (reserves[p, :25] + result.net_premium[p] - 3.0 * level) * (1 + RATE)
        close(expected, q * 100.0 * level + (1 - q) * ahead, rel=1e-10, scale=1.0)


def test_curves_discount_by_their_spot_rates():
    curve = YieldCurve([1, 10], [[0.01, 0.03], [0.02, 0.02]])
    assert curve.discount(5.0).shape == (2,)
    spot = 0.01 + 0.02 * 4 / 9
    close(curve.discount(5.0)[0], (1 + spot) ** -5)
    close(curve.discount(20.0)[0], 1.03**-20)
    from_factors = YieldCurve.from_discount_factors([1, 2], [0.98, 0.95])
    close(from_factors.discount(1.5), np.sqrt(0.98 * 0.95))


def test_cash_flows_sum_the_expected_payments_by_year():
    product = Product(death_benefit=10.0, survival_benefit=1.0, endowment=5.0, term=3, premium=2.0)
    result = value(frame("SULT", "u", [40, 60]), product, interest=RATE)
    flows = result.cash_flows
    q = np.array([LifeTable("SULT", "u")._decrement[x : x + 3] for x in (40, 60)])  # unrounded
    alive = np.cumprod(np.hstack([np.ones((2, 1)), 1 - q[:, :2]]), axis=1)
    close(flows["in_force"].to_numpy(), alive.sum(axis=0))
    close(flows["death_benefits"].to_numpy(), 10.0 * (alive * q).sum(axis=0))
    close(flows["premiums"].to_numpy(), 2.0 * alive.sum(axis=0))
    close(flows["endowments"].to_numpy()[2], 5.0 * (alive[:, 2] * (1 - q[:, 2])).sum())
    discounted = (flows["death_benefits"] + flows["endowments"]).to_numpy() * (1 + RATE) ** -np.arange(1, 4)
    discounted += ((flows["survival_benefits"] - flows["premiums"]) * flows["discount_factor"]).to_numpy()
    close(discounted.sum(), result.reserve.sum(), rel=1e-12)


@pytest.fixture(scope="module")
def mixed_book() -> pl.DataFrame:
    rng = np.random.default_rng(7)
    n = 5000
    table = rng.choice(["CSO2001", "SULT", "IAM2012"], n)
    return pl.DataFrame(
        {
            "table_name": table,
            "sex": np.where(table == "SULT", "u", "m"),
            "issue_age": rng.integers(20, 70, n),
            "duration": rng.integers(1, 30, n),
            "issue_year": rng.integers(1990, 2020, n),
            "benefit": rng.uniform(1e3, 1e5, n),
            "term": rng.integers(1, 40, n),
            "rate": rng.choice([0.01, 0.025], n),
        }
    )


def test_the_same_bits_whatever_the_threads_blocks_and_processes(mixed_book):
    product = Product(death_benefit="benefit", endowment="benefit", term="term", premium=None)
    basis = {"interest": "rate", "registry": TableRegistry(), "reserves_by_year": True}
    ways = [{}, {"threads": 2}, {"threads": 2, "block_size": 1}, {"block_size": 3000}]
    runs = [value(mixed_book, product, **basis, **way) for way in [*ways, {"block_size": 1024, "workers": 2}]]
    for other in runs[1:]:
        for name in ("pv_benefits", "pv_premiums", "net_premium", "reserve", "reserves"):
            np.testing.assert_array_equal(getattr(runs[0], name), getattr(other, name))
        assert runs[0].cash_flows.equals(other.cash_flows)


BOOK = {"table_name": ["SULT", "SULT"], "sex": ["u", "u"], "age": [40, 50]}


BY = {"interest": RATE}
# fmt: off
BAD_INPUT = [
    ({}, Product(death_benefit="sum"), BY, "column 'sum'"),
    ({"sum": ["a", "b"]}, Product(death_benefit="sum"), BY, "column 'sum'.*must hold numbers"),
    ({"sum": [1.0, float("nan")]}, Product(death_benefit="sum"), BY, "column 'sum', row 1"),
    ({"n": [3, -1]}, Product(death_benefit=1.0, term="n"), BY, "column 'n', row 1"),
    ({"d": [0.5, 1]}, Product(survival_benefit=1.0, deferral="d"), BY, "column 'd', row 0"),
    ({}, Product(death_benefit=1.0), {}, "exactly one of interest"),
    ({}, Product(death_benefit="age"), BY, "column 'age' describes the policies"),
    ({"i": [0.01, -2.0]}, Product(death_benefit=1.0), {"interest": "i"}, "column 'i', row 1"),
    ({"age_shift": [0, -1]}, Product(death_benefit=1.0), BY, "column 'age_shift', row 1"),
    ({"aggravated_risk": [0.0, 1]}, Product(death_benefit=1.0), BY, "'aggravated_risk', row 0"),
    *[({}, Product(death_benefit=1.0), BY | {k: v}, k)
      for k, v in [("threads", 0), ("block_size", 0), ("workers", 0), ("threads", True)]],
]
# fmt: on


@pytest.mark.parametrize(("columns", "product", "basis", "message"), BAD_INPUT)
def test_bad_input_is_refused_naming_column_and_row_or_argument(columns, product, basis, message):
    with pytest.raises(ValueError, match=message):
        value(pl.DataFrame(BOOK | columns), product, **basis)


@pytest.mark.parametrize(
    ("make", "message"),
    [
        (lambda: Product(term=-1), "term must be a whole number >= 0"),
        (lambda: Product(deferral=-2), "deferral"),
        (lambda: Product(death_benefit=float("nan")), "death_benefit"),
        (lambda: Product(m=5), "m must be one of"),
        (lambda: Product(endowment=1.0), "an endowment is paid at the end of a term"),
        (lambda: YieldCurve([1, 3, 2], [0.01] * 3), "terms must be strictly increasing, got 2.0 after 3.0"),
        (lambda: YieldCurve.from_discount_factors([1, 2], [0.9, 0.0]), "discount factors must be > 0"),
        (lambda: YieldCurve([1, 2], [0.01]), "one column per term"),
    ],
)
def test_bad_products_and_curves_are_refused(make, message):
    with pytest.raises(ValueError, match=message):
        make()


@pytest.mark.parametrize("kind", ["parquet", "csv", "lazy"])
def test_files_are_valued_batch_by_batch_with_the_bits_of_one_pass(mixed_book, tmp_path, monkeypatch, kind):
    import veltrane.valuation.stream as stream

    monkeypatch.setattr(stream, "BATCH_ROWS", 1024)
    product = Product(death_benefit="benefit", term="term", premium=None)
    whole = value(mixed_book, product, interest="rate", block_size=1024)
    source: object = tmp_path / f"book.{kind}"
    if kind == "parquet":
        mixed_book.write_parquet(source)
    elif kind == "csv":
        mixed_book.write_csv(source)
        whole = value(pl.read_csv(source), product, interest="rate", block_size=1024)  # decimals as read back
    else:
        source = mixed_book.lazy()
    out = tmp_path / "results.parquet"
    streamed = value(source, product, interest="rate", block_size=1024, out=out)
    assert pl.read_parquet(out).equals(whole.to_frame())
    assert streamed.cash_flows.equals(whole.cash_flows)
    assert streamed.totals["reserve"] == pytest.approx(whole.totals["reserve"], rel=1e-12)
    in_memory = value(source, product, interest="rate", block_size=1024)
    np.testing.assert_array_equal(in_memory.reserve, whole.reserve)


def test_a_bad_row_in_a_later_batch_leaves_no_output(mixed_book, tmp_path, monkeypatch):
    import veltrane.valuation.stream as stream

    monkeypatch.setattr(stream, "BATCH_ROWS", 1024)
    book = mixed_book.drop("term", "rate").with_columns(
        benefit=pl.when(pl.int_range(pl.len()) == 3000).then(None).otherwise("benefit")
    )
    out = tmp_path / "results.parquet"
    with pytest.raises(ValueError, match=r"column 'benefit', row 952.*rows from 2048"):
        value(book.lazy(), Product(death_benefit="benefit", term=5), interest=0.01, block_size=1024, out=out)
    assert list(tmp_path.iterdir()) == []


def test_a_registry_table_changed_between_calls_is_read_anew():
    registry = TableRegistry()
    product = Product(death_benefit=1.0, term=10)
    before = value(frame("SULT", "u", AGES), product, interest=RATE, registry=registry)
    table = registry.get_or_create(LifeTable, "SULT", "u", None, None)
    table.modify_qx({"decrement_multiplier": 2.0})
    after = value(frame("SULT", "u", AGES), product, interest=RATE, registry=registry)
    close(after.pv_benefits, insurance(table, AGES, 10, i=RATE))
    assert (after.pv_benefits > before.pv_benefits).all()


def test_too_many_distinct_rates_are_refused_before_tabulating_them(monkeypatch):
    import veltrane.valuation.frame as laid_out

    monkeypatch.setattr(laid_out, "_LARGEST_GRID", 100)
    with pytest.raises(ValueError, match="column 'i' holds 2 distinct rates"):
        value(pl.DataFrame(BOOK | {"i": [0.01, 0.02]}), Product(death_benefit=1.0), interest="i")


def _kernel_inputs():
    from veltrane.valuation.frame import lay_out
    from veltrane.valuation.value import block_arguments

    laid = lay_out(frame("SULT", "u", AGES), Product(death_benefit=1.0, term=10), RATE, None, None)
    return laid.plan.bank, list(block_arguments(laid, slice(0, len(AGES)), True))


def _replace_field(fields, f, value):
    return (*fields[:f], value, *fields[f + 1 :])


# After the bank: discount, groups, ints, reals, n, m, ...
@pytest.mark.parametrize(
    ("change", "message"),
    [
        (
            lambda bank, a: a.__setitem__(2, _replace_field(a[2], 1, a[2][1].astype(np.float64))),
            "ints field 1 must be a contiguous 1-D array of int64",
        ),
        (
            lambda bank, a: a.__setitem__(3, _replace_field(a[3], 3, np.ones(2))),
            "one value per policy, or one",
        ),
        (lambda bank, a: a.__setitem__(2, a[2][:5]), "ints must be a tuple of 9 arrays"),
        (lambda bank, a: a[1].__setitem__((0, 0), 10**6), r"table row out of range \(group 0\)"),
        (lambda bank, a: a[2][0].__setitem__(0, 3), "group out of range"),
        (lambda bank, a: a[2][1].__setitem__(2, -1), r"age out of range \(policy 2\)"),
        (lambda bank, a: a[2][5].__setitem__(0, 5), "basis out of range"),
        (lambda bank, a: a[2][2].__setitem__(0, 2**62), "duration or age shift out of range"),
        (lambda bank, a: a.__setitem__(0, a[0][:, :2].copy()), "discount factors do not reach"),
        (lambda bank, a: a.__setitem__(5, 13), "m out of range"),
    ],
)
def test_the_kernel_refuses_inputs_it_cannot_read_safely(change, message):
    from veltrane.tables import decrement

    bank, args = _kernel_inputs()
    change(bank, args)
    with pytest.raises(ValueError, match=message):
        decrement._value_block(bank, *args, 1, None, 0)


def _read_only(shape):
    a = np.empty(shape)
    a.setflags(write=False)
    return a


@pytest.mark.parametrize(
    ("results", "offset"),
    [
        (lambda: np.empty((4, 1, len(AGES) + 1)), 2),  # too few columns for the block at this offset
        (lambda: np.empty((4, 1, 20), dtype=np.float32), 0),
        (lambda: np.empty((4, 20, 1)).transpose(0, 2, 1), 0),  # not contiguous along its last axis
        (lambda: _read_only((4, 1, 20)), 0),
    ],
)
def test_the_kernel_writes_only_into_results_it_can_hold(results, offset):
    from veltrane.tables import decrement

    bank, args = _kernel_inputs()
    with pytest.raises(ValueError, match="results must be a writeable float64 array"):
        decrement._value_block(bank, *args, 1, results(), offset)


def test_the_kernel_keeps_no_reference_to_its_inputs():
    import gc
    import sys

    from veltrane.tables import decrement

    bank, args = _kernel_inputs()
    arrays = [bank, *args[:2], *args[2], *args[3]]
    before = [sys.getrefcount(a) for a in arrays]
    for _ in range(100):
        decrement._value_block(bank, *args, 2, None, 0)
    gc.collect()
    assert [sys.getrefcount(a) for a in arrays] == before


def test_premiums_solved_at_issue_or_given_for_a_limited_term_with_escalating_benefits():
    table = LifeTable("SULT", "u")
    issued = value(frame("SULT", "u", AGES), Product(death_benefit=1.0, term=20, premium=None), interest=RATE)
    close(issued.net_premium, net_premium(table, AGES, 20, i=RATE))
    np.testing.assert_allclose(issued.reserve, 0.0, atol=1e-15)  # the net premium at issue reserves nothing
    product = Product(death_benefit=1000.0, term=20, premium=12.5, premium_term=10, escalation=0.03)
    result = value(frame("SULT", "u", AGES), product, interest=RATE)
    close(result.pv_premiums, 12.5 * annuity(table, AGES, 10, i=RATE))
    # A benefit growing at g, discounted at i, is a level benefit at (1 + i) / (1 + g) - 1 less one
    # year's growth: B (1 + g)^k v^(k + 1) = B / (1 + g) (v')^(k + 1).
    shifted = (1 + RATE) / 1.03 - 1
    close(result.pv_benefits, 1000.0 / 1.03 * insurance(table, AGES, 20, i=shifted), rel=1e-11)
    close(result.reserve, result.pv_benefits - result.pv_premiums)


def test_pandas_frames_and_the_progress_bar(capsys):
    pandas = pytest.importorskip("pandas")
    pytest.importorskip("tqdm")  # an optional extra (veltrane[progress])
    book = frame("SULT", "u", [30, 40, 50], b=[1.0, 2.0, 3.0])
    result = value(
        pandas.DataFrame(book.to_dict(as_series=False)),
        Product(death_benefit="b", term=5),
        interest=RATE,
        progress=True,
    )
    expected = value(book, Product(death_benefit="b", term=5), interest=RATE)
    np.testing.assert_array_equal(result.pv_benefits, expected.pv_benefits)
    assert "valuing" in capsys.readouterr().err


def test_ratings_on_a_select_policy_rate_each_column_of_its_diagonal():
    # Shifted by s, a life selected at x0 reads the diagonal of a life selected at x0 + s.
    issue_age, duration, shift = 30, 3, 4
    path = LifeTable("CSO2001", "f", duration=1).select_path(issue_age + shift)
    with warnings.catch_warnings():
        warnings.simplefilter("ignore")
        path.modify_qx({"decrement_multiplier": 1.5, "aggravated_risk": 2.0})
    keys = {"issue_age": issue_age, "duration": duration, "age_shift": shift}
    policies = pl.DataFrame({"table_name": "CSO2001", "sex": "f", "decrement_multiplier": 1.5} | keys)
    result = value(
        policies.with_columns(aggravated_risk=pl.lit(2.0)), Product(death_benefit=1.0, term=25), interest=RATE
    )
    close(result.pv_benefits, insurance(path, issue_age + duration - 1 + shift, 25, i=RATE))


@pytest.mark.parametrize("interpolation", ["linear", "exponential", "hyperbolic"])
@pytest.mark.parametrize("due", [True, False])
def test_instalments_of_a_year_are_counted_with_the_survival_within_it(interpolation, due):
    from veltrane.config import Config

    with Config().override(lx_interpolation=interpolation):
        result = value(
            frame("SULT", "u", [70]), Product(survival_benefit=12.0, term=1, m=12, due=due), interest=RATE
        )
        many = value(frame("SULT", "u", AGES), Product(survival_benefit=1.0, m=12, term=25), interest=RATE)
        close(many.pv_benefits, annuity(LifeTable("SULT", "u"), AGES, 25, i=RATE, m=12))
    q = LifeTable("SULT", "u")._decrement[70]
    t = (np.arange(12) + (0 if due else 1)) / 12
    alive = {"linear": 1 - t * q, "exponential": (1 - q) ** t, "hyperbolic": (1 - q) / (1 - q + t * q)}
    alive = alive[interpolation]
    close(result.cash_flows["survival_benefits"][0], alive.sum())
    close(result.pv_benefits[0], (alive * (1 + RATE) ** -t).sum())


def test_in_force_net_premiums_on_a_curve_and_at_one_rate_agree(mixed_book):
    # On a curve the years after the valuation date are valued from issue a second time; at one
    # rate they are discounted back: a flat curve must give the same premiums.
    product = Product(death_benefit="benefit", survival_benefit=100.0, term="term", premium=None, m=4)
    book = mixed_book.head(500).drop("rate")
    flat = value(book, product, interest=0.025)
    curved = value(book, product, curve=YieldCurve([1.0, 50.0], [0.025, 0.025]))
    close(curved.net_premium, flat.net_premium, rel=1e-12)
    close(curved.reserve, flat.reserve, rel=1e-11, scale=1e5)


def test_scenario_sets_give_each_scenario_its_own_premiums_and_flows():
    curve = YieldCurve([1, 20], [[0.01, 0.02], [0.04, 0.05]])
    product = Product(death_benefit=1000.0, endowment=1000.0, term=20, premium=None)
    result = value(frame("SULT", "u", [30, 50]), product, curve=curve, reserves_by_year=True)
    assert result.net_premium.shape == (2, 2) and result.reserves.shape[:2] == (2, 2)
    assert result.to_frame().height == 2 * 2
    assert (result.net_premium[0] > result.net_premium[1]).all()  # lower rates, dearer cover
    for s in range(2):
        alone = value(frame("SULT", "u", [30, 50]), product, curve=YieldCurve([1, 20], curve.spot_rates[s]))
        np.testing.assert_array_equal(result.net_premium[s], alone.net_premium)
        flows = result.cash_flows.filter(pl.col("scenario") == s).drop("scenario")
        assert flows.equals(alone.cash_flows)
    np.testing.assert_allclose(result.totals["reserve"], result.reserve.sum(axis=1))


def test_policies_read_once_give_the_bits_of_the_frame_on_every_basis(mixed_book):
    registry = TableRegistry()
    policies = Policies(mixed_book, registry=registry)
    bases = [
        (Product(death_benefit="benefit", term="term", premium=None), {"interest": "rate"}),
        (Product(survival_benefit="benefit", m=12, term=20), {"curve": YieldCurve([1, 30], [0.01, 0.03])}),
    ]
    for product, basis in bases:
        for threads in (1, 2):
            ours = value(policies, product, threads=threads, reserves_by_year=True, **basis)
            read = [c for c in mixed_book.columns if c not in ("term", "rate") or c in product.columns()]
            read += ["rate"] if basis.get("interest") == "rate" else []
            theirs = value(
                mixed_book.select(read), product, registry=registry, reserves_by_year=True, **basis
            )
            for name in ("pv_benefits", "net_premium", "reserve", "reserves"):
                np.testing.assert_array_equal(getattr(ours, name), getattr(theirs, name))
            assert ours.cash_flows.equals(theirs.cash_flows)


PLAIN = Product(death_benefit=1.0)


@pytest.mark.parametrize(
    ("call", "message"),
    [
        (lambda p: value(p, PLAIN, interest=RATE, registry=TableRegistry()), "own registry"),
        (lambda p: value(p, PLAIN, interest=RATE, out="x.parquet"), "give the frame"),
        (lambda p: value(p, Product(death_benefit="nothing"), interest=RATE), "column 'nothing' named by"),
        (lambda p: value(p, Product(death_benefit="spare"), interest=RATE), "column 'spare', row 1"),
    ],
)
def test_policies_read_once_refuse_what_a_frame_would(call, message):
    policies = Policies(pl.DataFrame(BOOK | {"spare": [1.0, None]}))
    with pytest.raises(ValueError, match=message):
        call(policies)
    with pytest.raises(ValueError, match="row 1: 'x' is not one of"):
        Policies(pl.DataFrame(BOOK | {"sex": ["u", "x"]}))


def test_policies_do_not_see_later_changes_to_their_frame():
    book = pl.DataFrame(BOOK | {"sum": [1.0, 2.0]})
    policies = Policies(book)
    before = value(policies, Product(death_benefit="sum"), interest=RATE).pv_benefits
    book.replace_column(2, pl.Series("age", [60, 70]))
    book.replace_column(3, pl.Series("sum", [5.0, 5.0]))
    after = value(policies, Product(death_benefit="sum"), interest=RATE).pv_benefits
    np.testing.assert_array_equal(before, after)
