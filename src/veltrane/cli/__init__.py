"""The ``veltrane`` command: list the available tables, show one, evaluate an actuarial function.

Examples
--------
.. code-block:: sh

    veltrane tables                             # tables found, with type and structure
    veltrane show SULT --sex u                  # summary lines and the first rates
    veltrane eval SULT --sex u tpx 65 10        # 10p65
    veltrane eval SULT --sex u qx 50.5 --m 12   # monthly decrement probability at 50.5
    veltrane eval SULT --sex u lx 50,60,70      # several ages, comma-separated
    veltrane --tables-path ./tables show MINE   # a tables directory searched first
    veltrane eval SULT --sex u ex 65            # curtate expectation of life (--complete: complete)
    veltrane eval CSO2017 --sex m --selected-at 45 tpx 45 20  # along the select diagonal
    veltrane annuity SULT --sex u --age 65 --rate 0.05 --m 12
    veltrane commutation SULT --sex u --rate 0.03 -o sult.csv
    veltrane tables --search select            # tables whose name, structure or description has the words
    veltrane plot SULT CSO1980:f DAV2004R:m:1960 -o chart.svg   # each table with its own keys
    veltrane import t3287.xml t3288.xml --name CSO2017 --out ./tables   # published XTbML tables

``--sex`` may be left out for a table with a single sex. Bad arguments, unknown tables and
values a table refuses end with a one-line message on standard error and exit status 2;
warnings are printed there as one line each. Output cut short by a closed pipe
(``veltrane show ... | head``) ends quietly with status 0. A bare ``veltrane`` prints the help.

The package holds one module per group of commands (``tables``: tables, show and eval;
``contingencies``: annuity and commutation; ``plot``), the parser in ``parser`` and the shared
pieces in ``common``.
"""

from __future__ import annotations

from veltrane.cli.main import main

__all__ = ["main"]
