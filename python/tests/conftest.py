import faulthandler
import os
import sys

import pytest


@pytest.fixture(autouse=True)
def watchdog():
    """A test still running after two minutes ends the run with every
    thread's stack: a hang fails fast instead of stalling the suite."""
    faulthandler.dump_traceback_later(120, exit=True, file=sys.stderr)
    yield
    faulthandler.cancel_dump_traceback_later()


@pytest.fixture
def cli():
    """The tessera command of the same build."""
    path = os.environ.get("TESSERA_CLI")
    if not path:
        pytest.skip("TESSERA_CLI is not set")
    return path
