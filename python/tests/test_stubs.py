"""The type stubs made from the declarations: mypy accepts a script that
uses the package as documented and names each mistake in one that does not."""
import os
import subprocess

import pytest

import tessera

STUBS = os.path.join(os.path.dirname(tessera.__file__), "__init__.pyi")
pytestmark = pytest.mark.skipif(not os.path.exists(STUBS),
                                reason="sanitized builds make no stubs")

GOOD = '''
import tessera
plate = tessera.filein(path="plate.exr")
soft = plate.blur(size=[5, 5], filter="lanczos3").gain(gain=[1.2, 1, 1, 1])
comp = soft.over(tessera.checkerboard(size=8, area=[0, 0, 64, 48])) * 0.5
comp.write("out.exr", compression="piz")
pixels = tessera.render(comp, rect=(0, 0, 64, 48))
memory = tessera.statistics()["Image Memory Management"]
tessera.save_graph("comp.json", {"out.exr": comp})
'''
BAD = '''
import tessera
plate = tessera.filein(path="plate.exr")
plate.blur(size=[5, 5], filter="lanczos")
tessera.blur(plate, sise=[3, 3])
tessera.render(plate, rect="all")
'''


def mypy(tmp_path, text):
    script = tmp_path / "script.py"
    script.write_text(text)
    env = dict(os.environ, MYPYPATH=os.path.dirname(os.path.dirname(STUBS)))
    return subprocess.run(["/usr/bin/python3", "-m", "mypy", "--no-incremental",
                           "--cache-dir", str(tmp_path / "cache"), str(script)],
                          capture_output=True, text=True, env=env, timeout=300)


def test_mypy_accepts_documented_use_and_names_each_mistake(tmp_path):
    good = mypy(tmp_path, GOOD)
    assert good.returncode == 0, good.stdout
    bad = mypy(tmp_path, BAD)
    assert bad.returncode == 1
    assert 'Argument "filter" to "blur" of "Task"' in bad.stdout
    assert 'Unexpected keyword argument "sise" for "blur"' in bad.stdout
    assert 'Argument "rect" to "render"' in bad.stdout


def test_every_operator_is_in_the_stubs_with_its_documentation():
    text = open(STUBS).read()
    for op in tessera.list_operations():
        assert f"\ndef {op.name}(" in text, op.name
        assert op.summary[1:] in text, op.name
