"""Prints the tests of the modules that are named, one a line: module.Class.method. Nothing is
imported: the tests' settings come with ctest."""

import ast
import sys


def tests_of(path, classes):
    with open(path, encoding="utf-8") as file:
        tree = ast.parse(file.read())
    for node in tree.body:
        if isinstance(node, ast.ClassDef):
            own = [n.name for n in node.body if isinstance(n, ast.FunctionDef)]
            bases = [base.id for base in node.bases if isinstance(base, ast.Name)]
            methods = [name for name in own if name.startswith("test_")]
            methods += [m for base in bases for m in classes.get(base, [])]
            classes[node.name] = methods
            if any(base.endswith("Case") for base in bases):
                yield from ((node.name, method) for method in methods)


for source in sys.argv[1:]:
    module = source.rsplit("/", 1)[-1].removesuffix(".py")
    for class_name, method in tests_of(source, {}):
        print(f"{module}.{class_name}.{method}")
