"""The package's type stubs describe the module as built: every public name, every class member and every
function's parameters, so that editors complete what exists."""

import ast
import inspect
import pathlib

import pytest

import kivsdk

STUBS = ast.parse((pathlib.Path(kivsdk.__file__).parent / "__init__.pyi").read_text())
# Names that exist only for the stubs' annotations.
STUB_ALIASES = {"DateLike", "Progress"}
# Members every enum or exception has from pybind11 or Python itself.
INHERITED = {"name", "value", "args", "add_note", "with_traceback"}


def declared_names(body):
    names = set()
    for node in body:
        if isinstance(node, (ast.ClassDef, ast.FunctionDef)):
            names.add(node.name)
        elif isinstance(node, ast.AnnAssign):
            names.add(node.target.id)
        elif isinstance(node, ast.Assign):
            names.update(target.id for target in node.targets)
    return names


def stub_classes():
    return {node.name: node for node in STUBS.body if isinstance(node, ast.ClassDef)}


def parameters_in_docstring(function):
    """The parameter names of a pybind11 function, from its signature line."""
    signature = function.__doc__.split("\n")[0]
    inside = signature[signature.index("(") + 1:signature.rindex(")")]
    names, depth, current = [], 0, ""
    for character in inside + ",":
        if character in "[(":
            depth += 1
        elif character in "])":
            depth -= 1
        if character == "," and depth == 0:
            names.append(current.split(":")[0].strip())
            current = ""
        else:
            current += character
    return {name for name in names if name not in ("", "*")}


def test_every_public_name_of_the_module_has_a_stub_and_no_stub_is_made_up():
    assert set(kivsdk.__all__) == declared_names(STUBS.body) - STUB_ALIASES


@pytest.mark.parametrize("name", sorted(stub_classes()))
def test_each_class_stub_lists_the_class_members(name):
    members = {member for member in dir(getattr(kivsdk, name)) if not member.startswith("_")}
    declared = {member for member in declared_names(stub_classes()[name].body) if not member.startswith("_")}
    assert members - INHERITED == declared - INHERITED


@pytest.mark.parametrize("name", sorted(node.name for node in STUBS.body if isinstance(node, ast.FunctionDef)))
def test_each_function_stub_takes_the_function_parameters(name):
    stubs = [node for node in STUBS.body if isinstance(node, ast.FunctionDef) and node.name == name]
    declared = {argument.arg for stub in stubs for argument in stub.args.args + stub.args.kwonlyargs}
    assert inspect.isbuiltin(getattr(kivsdk, name))
    assert parameters_in_docstring(getattr(kivsdk, name)) == declared
