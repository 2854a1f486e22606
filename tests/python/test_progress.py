"""Progress: the bar, the callable, and stopping a run (an exception, Ctrl+C)."""

import os
import signal
import threading

import numpy as np
import pytest
from conftest import blurred_texture

import marlith

KERNEL = np.ones((7, 7))


@pytest.fixture(scope="module")
def image():
    return np.clip(blurred_texture(160, 200, KERNEL, 3), 0, 1)


def test_callable_sees_the_phases_in_order_and_an_exception_from_it_stops_the_run(image):
    seen = []

    def stop(phase, fraction):
        seen.append(phase)
        if phase == "deconvolution":
            raise RuntimeError("enough")

    with pytest.raises(RuntimeError, match="enough"):
        marlith.deconvolve(image, KERNEL, noise=0.05, progress=stop)
    # Not called again once it raised ("done" reaching Python shows in the bar's last line).
    assert seen[0] == "margins" and seen.index("deconvolution") == len(seen) - 1


def test_bar_is_drawn_on_standard_error(image, capfd):
    marlith.deconvolve(image, KERNEL, noise=0.05, progress=True)
    out, err = capfd.readouterr()
    assert out == ""
    assert "deconvolution" in err and err.endswith("100%\n")


@pytest.mark.parametrize("with_callable", [False, True])
def test_sigint_during_a_run_raises_keyboard_interrupt_after_the_library_unwound(with_callable):
    # A run long enough (several seconds) for an interrupt to land in it.
    big = np.clip(blurred_texture(1024, 1024, KERNEL), 0, 1)
    seen = []
    started = threading.Event()
    progress = (lambda phase, _: seen.append(phase) or started.set()) if with_callable else None
    if not with_callable:
        threading.Timer(0.2, started.set).start()
    sender = threading.Thread(target=lambda: started.wait() and os.kill(os.getpid(),
                                                                         signal.SIGINT))
    sender.start()
    with pytest.raises(KeyboardInterrupt):
        marlith.deconvolve(big, KERNEL, noise=0.001, boundary="periodic", threads=1,
                           progress=progress)
    sender.join()
    assert "done" not in seen
    # The library is left usable.
    assert marlith.deconvolve(np.full((32, 32), 0.5), KERNEL, noise=0.1).shape == (32, 32)
