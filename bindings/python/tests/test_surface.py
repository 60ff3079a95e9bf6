# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""Every operation that the library exports has a form in Python, by the table of docs/python.md."""

import inspect
import re
import unittest

import ks
import ks.testing
from support import ROOT

PAGE = ROOT / "docs/python.md"
MAP = ROOT / "src/libks.map"
MODULES = (ks.device, ks.secrets, ks.crypto, ks.mschap, ks.pacs, ks.cache)


def rows():
    """The table's rows: a name of C and what the page says of it."""
    return dict(re.findall(r"^\| `(\w+)` \| (.+) \|$", PAGE.read_text(), re.M))


def forms(text):
    return re.findall(r"`(ks\.[\w.]+)`", text)


def found(path):
    value = ks
    for name in path.split(".")[1:]:
        value = getattr(value, name)
    return value


def functions(module):
    return {f"{module.__name__}.{name}": value for name, value in vars(module).items()
            if inspect.isfunction(value) and not name.startswith("_") and value.__module__ == module.__name__}


@unittest.skipUnless(PAGE.exists() and MAP.exists(), "needs the repository")
class Surface(unittest.TestCase):
    def exported(self):
        listed = MAP.read_text().split("global:")[1].split("local:")[0]
        return set(re.findall(r"(\w+);", listed))

    def test_has_a_row_for_each_export_that_is_no_companion(self):
        operations = {name for name in self.exported() if not name.endswith(("_req", "_resp"))}
        self.assertEqual(set(rows()), operations)

    def test_has_what_each_row_names(self):
        for name, text in rows().items():
            self.assertTrue(forms(text), name)
            for form in forms(text):
                self.assertTrue(callable(found(form)), form)

    def test_calls_what_each_row_says_and_nothing_else(self):
        sources = "\n".join(inspect.getsource(module) for module in (*MODULES, ks._start, ks.errors))
        called = set(re.findall(r"\blib\.(\w+)", sources))
        for name, text in rows().items():
            self.assertEqual(name in called, not text.startswith("not called"), name)

    def test_lists_every_function_of_the_package(self):
        listed = {form for text in rows().values() for form in forms(text)}
        for module in MODULES:
            self.assertEqual(set(functions(module)) - listed, set())

    def test_has_every_companion_in_the_raw_interface(self):
        for name in self.exported():
            self.assertTrue(hasattr(ks.raw.lib, name), name)
        descriptor = ks.raw.ffi.new("KsRandomDescriptor *")
        ks.raw.lib.ks_generate_random_number_req(0x110, 7, descriptor)
        self.assertEqual((descriptor.count, descriptor.request_word), (0x10, 7))
        # Records that C packs are as long here.
        for name, size in (("KsCacheKey", 39), ("KsCacheEntry", 22), ("KsAesCbcReply", 22)):
            self.assertEqual(ks.raw.ffi.sizeof(name), size)

    def test_tells_what_each_function_does(self):
        for module in (*MODULES, ks.tlv, ks.testing):
            self.assertTrue(module.__doc__)
            for name, value in functions(module).items():
                self.assertTrue(inspect.getdoc(value), name)
                for parameter in inspect.signature(value).parameters.values():
                    self.assertIsNot(parameter.annotation, parameter.empty, f"{name}: {parameter}")
        for name in ks.__all__:
            self.assertTrue(inspect.getdoc(getattr(ks, name)), name)

    def test_has_a_row_for_each_exception(self):
        page = PAGE.read_text()
        for name in ks.__all__:
            value = getattr(ks, name)
            if isinstance(value, type) and issubclass(value, ks.Error):
                self.assertIn(f"`ks.{name}`", page)


if __name__ == "__main__":
    unittest.main()
