"""``python -m veltrane.cli``: the ``veltrane`` command."""

import sys

from veltrane.cli.main import main

sys.exit(main())
