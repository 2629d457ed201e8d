"""Hostile numeric input: lists changed by their own elements, masked arrays, big arrays read in place
and in pieces. Crashers run in a fresh interpreter, so that a segmentation fault fails one test only."""

from __future__ import annotations

import subprocess
import sys
import textwrap
import tracemalloc

import numpy as np
import pytest

from veltrane import helpers
from veltrane.tables.life import LifeTable

PIECE = 1 << 21  # cells per piece of a long vector call (between two checks for Ctrl-C)
TABLE = LifeTable("SULT", "u")


def run_isolated(code: str) -> list[str]:
    """Runs ``code`` in a fresh interpreter and returns its printed lines; it must exit cleanly."""
    argv = [sys.executable, "-c", textwrap.dedent(code)]
    result = subprocess.run(argv, capture_output=True, text=True, timeout=300, check=False)
    assert result.returncode == 0, f"exit status {result.returncode}\n{result.stderr[-3000:]}"
    return result.stdout.split()


SHIFTING = """
import gc
import numpy as np
from veltrane import LifeTable, helpers
table = LifeTable("SULT", "u")

class Age:
    def __init__(self, v):
        self.v = v
    def __float__(self):
        return self.v

def shifting(n, refill):
    # The first element's __float__ empties the list and refills it with `refill` new elements.
    items = []
    class Shifty:
        def __float__(self):
            items.clear()
            gc.collect()
            items.extend(Age(61.5) for _ in range(refill))
            return 60.0
    items.extend([Shifty()] + [Age(60.0 + i) for i in range(1, n)])
    return items

for refill in (0, N, N + 5):
    try:
        result = CALL(shifting(N, refill))
    except RuntimeError as e:
        print("refused" if "changed size while it was read" in str(e) else repr(e))
    else:  # the same size: the elements after the first are the new ones
        print("same" if np.array_equal(result, CALL([60.0] + [61.5] * (N - 1))) else "differs")
"""


# fmt: off
RESIZED = [
    "table.qx", "lambda ages: table.tqx(65.0, ages)", "lambda ages: table.tpx(ages, [1.0, 2.5])", "table.lx",
    "helpers._as_f64_safe", "lambda v: helpers._validate_numeric_input(v)[0]",
    "lambda m: (table.modify_qx({'decrement_multiplier': m}), table.qx())[1]",
]
# fmt: on


@pytest.mark.parametrize("call", RESIZED)
def test_a_list_resized_by_its_own_elements_is_refused_or_read_afresh(call):
    n = 121 if "modify_qx" in call else 4  # a multiplier vector has one factor per age
    code = SHIFTING.replace("CALL", f"({call})").replace("N", str(n))
    assert run_isolated(code) == ["refused", "same", "refused"]


MIDWAY = {
    # Rate vectors of a combination: an element of an inner list drops the outer list's items.
    "combination-vectors": """
        from veltrane.tables import decrement as dm
        others = []
        class Dropper:
            def __float__(self):
                others.clear()
                return 0.1
        others.extend([[Dropper(), 0.2, 0.3], [0.1, 0.2, 0.3]])
        print(dm._combine_decrements_udd([0.1, 0.2, 0.3], others, 0).size)
        """,
    # A subclass's slot descriptor deleted by the deep copy of the slot's value.
    "copy-slot-descriptor": """
        from veltrane import LifeTable
        class Tagged(LifeTable):
            __slots__ = ("tag",)
        class Vanishing:
            def __deepcopy__(self, memo):
                del Tagged.tag
                return Vanishing()
        t = Tagged("SULT", "u")
        t.tag = Vanishing()
        print(type(t.copy()).__name__)
        """,
    # The prefix map and the table's sex changed by the table source's properties.
    "view-prefix-map": """
        from veltrane import LifeTable
        t = LifeTable("SULT", "u")
        t._sex = "".join(["u", "u"])  # strings that only the map and the table hold
        prefixes = type(t)._DECREMENT_PREFIX_MAP
        prefixes["life"] = "".join(["q", "x"])
        class Meddling(type(t._table)):
            __slots__ = ()
            @property
            def select(self):
                prefixes["life"] = "".join(["q", "x"])
                t._sex = "".join(["f", "f"])
                return False
        t._table.__class__ = Meddling
        print(t.view_data().columns[1])
        """,
}


@pytest.mark.parametrize("code", MIDWAY.values(), ids=MIDWAY)
def test_values_replaced_by_python_code_midway_stay_alive(code):
    assert len(run_isolated(code)) == 1


# fmt: off
CALLS = {
    "qx": TABLE.qx, "qx whole ages": lambda a: TABLE.qx(np.floor(a)), "px m=12": lambda a: TABLE.px(a, m=12),
    "lx": TABLE.lx, "dx": TABLE.dx, "tpx t": lambda a: TABLE.tpx(50.5, a),
    "tqx x": lambda a: TABLE.tqx(a, 7.5), "_as_f64_safe": helpers._as_f64_safe,
    "tqx two rows": lambda a: TABLE.tqx([0.5, 70.25], a), "_lx_at": lambda a: TABLE._lx_at(a, use_raw=True),
    "_validate_numeric_input": lambda a: helpers._validate_numeric_input(a)[0],
}
# fmt: on
# np.floor would read the mask itself: the checks below go to the entry points directly
CHECKS = {k: f for k, f in CALLS.items() if k != "qx whole ages"} | {
    "_is_finite_f64_array": helpers._is_finite_f64_array,
    "_is_integer_valued": helpers._is_integer_valued,
}


# fmt: off
MASKED = [
    (np.ma.masked_array([60.0, 61.0], mask=[0, 1]), r"\[1\]"),
    (np.ma.masked_array([60, 61], mask=[0, 1], dtype=object), r"\[1\]"),
    ([60.0, np.ma.masked], r"\[1\]"), (np.ma.masked_array(60.0, mask=True), r"[a-z]"),
]
MASKED_SCALAR = {
    "m": lambda v: TABLE.qx(60, m=v),
    "_validate_scalar_numeric": lambda v: helpers._validate_scalar_numeric(v, "w"),
    "unisex_blend": lambda v: LifeTable("SULT", "u", unisex_blend=v),
}
# fmt: on


@pytest.mark.parametrize("caller", list(CHECKS))
@pytest.mark.parametrize(("masked", "where"), MASKED)
def test_masked_values_are_refused(caller, masked, where):
    with pytest.raises(ValueError, match=where + " is masked"):
        CHECKS[caller](masked)


@pytest.mark.parametrize("caller", MASKED_SCALAR.values(), ids=MASKED_SCALAR)
def test_a_masked_scalar_is_refused(caller):
    with pytest.raises(ValueError, match="is masked"):
        caller(np.ma.masked)


@pytest.mark.parametrize("caller", list(CHECKS))
def test_a_masked_array_without_masked_values_is_read_as_its_data(caller):
    data = np.array([60.0, 61.25, 62.0])
    np.testing.assert_array_equal(CHECKS[caller](np.ma.masked_array(data, mask=False)), CHECKS[caller](data))


def test_masked_multipliers_are_refused_and_the_table_kept():
    t, plain = LifeTable("SULT", "u"), LifeTable("SULT", "u")
    factors = np.ma.masked_array(np.full(t.w + 1, 1.5), mask=np.arange(t.w + 1) == 70)
    with pytest.raises(ValueError, match=r"decrement_multiplier\[70\] is masked"):
        t.modify_qx({"decrement_multiplier": factors})
    np.testing.assert_array_equal(t.qx(), plain.qx())
    t.modify_qx({"decrement_multiplier": np.ma.masked_array(factors.data)})  # nothing masked: the data
    plain.modify_qx({"decrement_multiplier": factors.data})
    np.testing.assert_array_equal(t.qx(), plain.qx())


def test_validation_reads_a_float64_array_in_place():
    durations = np.linspace(0.0, 60.0, 1_000_000)
    table = LifeTable("SULT", "u")
    table.tpx(50.5, durations[:10])  # l vectors built outside the measurement
    tracemalloc.start()
    try:
        start = tracemalloc.get_traced_memory()[0]
        tracemalloc.reset_peak()
        result = table.tpx(50.5, durations)
        peak = tracemalloc.get_traced_memory()[1] - start
    finally:
        tracemalloc.stop()
    # The result is the only vector of this size allocated: no copy of the durations.
    assert result.nbytes <= peak < 1.5 * durations.nbytes


# fmt: off
LAYOUTS = {  # "swapped": the other byte order
    "plain": lambda a: a, "read-only": lambda a: np.lib.stride_tricks.as_strided(a, writeable=False),
    "swapped": lambda a: a.astype(">f8"), "strided": lambda a: np.repeat(a, 2)[::2],
    "misaligned": lambda a: np.frombuffer(b"\0" + a.tobytes(), dtype=np.float64, offset=1),
}
# fmt: on


@pytest.mark.parametrize("call", list(CALLS))
@pytest.mark.parametrize("layout", LAYOUTS.values(), ids=LAYOUTS)
def test_any_layout_gives_the_plain_values_without_sharing_or_changing_the_array(call, layout):
    ages = np.linspace(20.0, 90.0, 40_001)
    given = layout(ages)
    kept = given.copy()
    result = CALLS[call](given)
    assert not np.shares_memory(result, given)
    np.testing.assert_array_equal(given, kept)
    np.testing.assert_array_equal(result, CALLS[call](ages.copy()))


@pytest.mark.parametrize("call", list(CALLS))
def test_a_vector_longer_than_a_piece_equals_its_parts(call):
    ages = np.random.default_rng(7).uniform(0.0, 125.0, 2 * PIECE + 1001)
    step = 100_003  # short calls: one piece each, their ends nowhere near the pieces' ends
    parts = [CALLS[call](ages[i : i + step]) for i in range(0, ages.size, step)]
    np.testing.assert_array_equal(CALLS[call](ages), np.concatenate(parts, axis=-1))


@pytest.mark.parametrize(("position", "bad"), [(0, np.nan), (PIECE - 1, np.inf), (PIECE + 3, -np.inf)])
def test_a_non_finite_value_anywhere_in_a_big_array_is_refused(position, bad):
    ages = np.full(PIECE + 10, 50.0)
    ages[position] = bad
    with pytest.raises(ValueError, match=rf"\[tqx\] t\[{position}\] must be finite"):
        TABLE.tqx(50.0, ages)


def test_a_fault_in_a_later_piece_is_reported():
    t = LifeTable("SULT", "u")
    q = t._decrement.copy()
    q[70] = -0.5  # a rate edited by hand: the survival probability 1.5 is impossible
    t._decrement = q
    ages = np.full(PIECE + 100, 60.0)
    ages[PIECE + 7] = 70.0
    with pytest.raises(ValueError, match=r"outside \[0,1\]"):
        t.px(ages)


def test_ctrl_c_stops_a_long_call_between_pieces_and_leaves_the_table_usable():
    # The interrupt comes from a thread that can run only once the call has released the GIL
    # (a long switch interval keeps it waiting until then). A profile hook runs Python code as
    # the call returns: a signal still pending then would be handled in the hook's frame.
    lines = run_isolated(
        f"""
        import _thread, signal, sys, threading
        import numpy as np
        from veltrane import LifeTable

        table = LifeTable("SULT", "u")
        ages = np.random.default_rng(3).uniform(20.0, 100.0, 8 * {PIECE})
        handled_in = []

        def handler(signum, frame):
            handled_in.append(frame.f_code.co_name)
            raise KeyboardInterrupt

        signal.signal(signal.SIGINT, handler)
        sys.setswitchinterval(1000.0)
        go = threading.Lock()
        go.acquire()
        helper = threading.Thread(target=lambda: (go.acquire(), _thread.interrupt_main()))
        helper.start()
        go.release()
        sys.setprofile(lambda frame, event, arg: None)
        try:
            table.qx(ages)
        except KeyboardInterrupt:
            pass
        sys.setprofile(None)
        helper.join()
        sys.setswitchinterval(0.005)
        fresh = LifeTable("SULT", "u")
        print(handled_in)
        print(np.array_equal(table.qx(ages[:100_000]), fresh.qx(ages[:100_000])))
        print(np.array_equal(table._lx, fresh._lx) and np.array_equal(table._lx_raw, fresh._lx_raw))
        """
    )
    assert lines == ["['<module>']", "True", "True"]
