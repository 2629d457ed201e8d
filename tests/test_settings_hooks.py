"""Native code follows every change of settings: one landing mid-refresh, or after a reload."""

from __future__ import annotations

import subprocess
import sys
import textwrap

from veltrane.config import Config
from veltrane.tables.life import LifeTable


def test_a_change_during_a_refresh_is_not_lost(monkeypatch):
    t = LifeTable("SULT", "u")
    q = t.qx(50)
    real = type(Config()).lx_interpolation
    changed = []

    def interpolation(self):
        # The refresh reads this setting; the first read changes another one meanwhile.
        if not changed:
            changed.append(True)
            Config().decimals.qx = 6
        return real.fget(self)

    monkeypatch.setattr(type(Config()), "lx_interpolation", property(interpolation, real.fset))
    with Config():
        Config().decimals.qx = 11
        t.qx(50)  # refreshes, and the change of qx lands inside the refresh
        assert t.qx(50) == round(q, 6)
        assert t._decimals_for_decrement == 6


def test_the_decimals_property_is_never_stale():
    t = LifeTable("SULT", "u")
    with Config().override(decimals={"qx": 7}):
        assert t._decimals_for_decrement == 7
    assert t._decimals_for_decrement == 12


def test_settings_reach_tables_after_the_configuration_module_is_reloaded():
    code = textwrap.dedent(
        """
        import importlib
        import veltrane.config
        from veltrane.tables.life import LifeTable

        t = LifeTable("SULT", "u")
        before = t.qx(50)
        config = importlib.reload(veltrane.config)
        config.Config().decimals.qx = 6
        assert t.qx(50) == round(before, 6), t.qx(50)
        config.Config().reset()
        assert t.qx(50) == before
        assert isinstance(config.Config(), config.Config)
        """
    )
    result = subprocess.run([sys.executable, "-c", code], capture_output=True, text=True, timeout=120)
    assert result.returncode == 0, result.stderr
