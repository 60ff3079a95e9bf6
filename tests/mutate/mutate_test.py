# SPDX-FileCopyrightText: 2026 The ks developers
# SPDX-License-Identifier: Apache-2.0

"""What mutate.py does, on sources of a few lines and on the tree in sample/."""

import os
import shutil
import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
HERE = Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))

import mutate  # noqa: E402


def faults(source, path="src/a.cc"):
  return {(mutant.kind, mutant.after) for mutant in mutate.mutants_of(path, source)}


class Faults(unittest.TestCase):
  def test_are_put_into_operators_codes_and_numbers(self):
    self.assertEqual(faults("bool f(int n) {\n  return n < 3 && n != 010;\n}\n"), {
        ("comparison", "return n <= 3 && n != 010;"), ("and-or", "return n < 3 || n != 010;"),
        ("constant", "return n < 2 && n != 010;"), ("comparison", "return n < 3 && n == 010;"),
        ("constant", "return n < 3 && n != 07;")})
    self.assertEqual(faults("int f() {\n  return KS_FAILURE;\n}\n"), {("code", "return KS_NO_MEMORY;")})
    self.assertEqual(faults("{\n  KS_TRACE(KS_SUBTYPE_NORMAL, 'a');\n}\n"), {
        ("subtype", "KS_TRACE(KS_SUBTYPE_CACHE_ALERT, 'a');"), ("dropped", ";")})

  def test_negate_what_no_other_fault_negates(self):
    self.assertEqual(faults("if (const int n = f(); g(n)) return;\n"), {
        ("negation", "if (const int n = f(); !(g(n))) return;"),
        ("dropped", "if (const int n = f(); g(n)) ;")})
    self.assertEqual(faults("if (!a) {\n"), {("negation", "if (a) {")})
    self.assertEqual(faults("if (a == b) {\n"), {("comparison", "if (a != b) {")})

  def test_drop_whole_statements_and_no_declarations(self):
    self.assertEqual(faults("{\n  free(a);\n  int b(c);\n  Foo &d = e;\n  g.h = {i,\n         j};\n}\n"), {
        ("dropped", ";")})
    dropped = [mutant for mutant in mutate.mutants_of("src/a.cc", "{\n  g.h = {i,\n         j};\n  k();\n}\n")]
    self.assertEqual([mutant.line for mutant in dropped], [2, 4])

  def test_keep_every_line_where_it_is(self):
    source = (HERE / "mutate_test.py").read_text() + "{\n  call(a,\n       b);\n}\n"
    for mutant in mutate.mutants_of("src/a.cc", source):
      self.assertEqual(mutant.apply(source).count("\n"), source.count("\n"), mutant.name)

  def test_leave_alone_what_is_no_code(self):
    self.assertEqual(faults("// a < 1\n/* a < 1;\n a < 2 */\n#define A(b) \\\n  ((b) < 1)\nf_of('1', \"a < 1\")\n"
                            "static_assert(sizeof(A) == 8);\n[[gnu::aligned(8)]] constexpr A a;\n"
                            "template <typename A, int n = 3>\n"), set())

  def test_turn_round_whether_a_call_failed(self):
    self.assertEqual(faults("if (file < 0) {\n"), {("comparison", "if (file >= 0) {")})
    self.assertEqual(faults("int file = -1;\n"), set())

  def test_leave_alone_how_large_a_buffer_is(self):
    self.assertEqual(faults("  char name[NAME_MAX + 1];\n"), set())
    self.assertEqual(faults("  a = name[3];\n"), {("constant", "a = name[2];")})

  def test_leave_alone_how_long_something_waits(self):
    self.assertEqual(faults("constexpr long kDeadlineMs = 250;\nnames.reserve(3)\n"), set())


class Groups(unittest.TestCase):
  def test_have_all_tests_of_a_beginning_and_scripts_by_their_whole_names(self):
    self.assertEqual(mutate.group_of("system_pac", ("service_", "system_")), 1)
    self.assertEqual(mutate.group_of("fleet", ("service_server", "fleet")), 1)
    self.assertIsNone(mutate.group_of("fleet_engine", ("service_server", "fleet")))


class Runs(unittest.TestCase):
  def setUp(self):
    folder = tempfile.TemporaryDirectory()
    self.addCleanup(folder.cleanup)
    self.root = Path(folder.name) / "sample"
    shutil.copytree(HERE / "sample", self.root)

  def mutate(self, *arguments, **environment):
    command = [sys.executable, str(HERE / "mutate.py"), "--root", str(self.root), "--jobs", "2", *arguments]
    environment = {name: value for name, value in os.environ.items() if name != "KS_TEST_SEED"} | environment
    return subprocess.run(command, capture_output=True, text=True, check=False, env=environment)

  def test_name_what_survives_and_leave_the_tree_as_it_is(self):
    before = {path: path.read_bytes() for path in self.root.rglob("*") if path.is_file()}

    run = self.mutate("10", "src", KS_TEST_SEED="7")

    self.assertEqual(run.returncode, 0, run.stderr)
    self.assertIn("survived src/limit.cc:10 (constant)\n  - return value * 16;\n  + return value * 15;\n", run.stdout)
    self.assertIn("src: 1 of 2 killed (50.0 %), 0 of them by hanging; seed 7;", run.stdout)
    self.assertEqual({path: path.read_bytes() for path in before}, before)

    # As an interrupted run would have left it: a fault in the copy, and part of the verdicts.
    copy = self.root / "build/mutate/0/tree/src/limit.cc"
    copy.write_text(copy.read_text().replace("<", ">"))
    journal = self.root / "build/mutate/journal-src.txt"
    journal.write_text("".join(journal.read_text().splitlines(keepends=True)[:2]) + '{"name": "src/li')
    run = self.mutate("10", "src", KS_TEST_SEED="7")
    self.assertEqual(run.returncode, 0, run.stderr)
    self.assertIn("src: 1 of 2 killed", run.stdout)
    self.assertNotIn("[  1/", run.stderr)

    run = self.mutate("10", "src", "--again")
    self.assertIn("src: 0 of 1 killed", run.stdout)

  def test_run_scripts_with_the_programs_that_have_the_fault(self):
    run = self.mutate("50", "service", KS_TEST_SEED="7")
    self.assertEqual(run.returncode, 0, run.stderr)
    survivors = [line for line in run.stdout.splitlines() if line.startswith("  - ")]
    self.assertEqual(survivors, ["  - untold = untold + 3;"] * 12)
    self.assertIn("service: 14 of 26 killed", run.stdout)

  def test_refuse_a_tree_whose_tests_fail_without_a_fault(self):
    source = self.root / "src/limit.cc"
    source.write_text(source.read_text().replace("<", ">"))
    run = self.mutate("10", "src")
    self.assertEqual(run.returncode, 1)
    self.assertIn("unit_limit fails as the tree is", run.stderr)

  def test_draw_the_same_faults_for_a_seed(self):
    source = self.root / "src/limit.cc"
    source.write_text(source.read_text() + "".join(f"int f{n}(int a) {{\n  return a + {n};\n}}\n" for n in range(40)))
    drawn = [self.mutate("5", "src", "--list", "--seed", seed).stdout for seed in ("1", "1", "2")]
    self.assertEqual(drawn[0], drawn[1])
    self.assertNotEqual(drawn[0], drawn[2])

  def test_say_what_can_be_chosen(self):
    run = self.mutate("5", "docs")
    self.assertEqual(run.returncode, 1)
    self.assertIn("'docs' has no sources; give src, platform/host, service", run.stderr)


if __name__ == "__main__":
  unittest.main()
