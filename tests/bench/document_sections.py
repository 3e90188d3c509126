"""The sections that the benchmarks' scripts write into a document that is written by hand."""

import pathlib
from unittest import TestCase

import report

KEPT = "<!-- what follows is written by hand and kept -->"
DOCUMENT = pathlib.Path(report.__file__).resolve().parent.parent / "docs" / "benchmarks.md"
WITH_SECTION = "before\n<!-- it: begin -->\n\nold\n\n<!-- it: end -->\nafter\n"


class Section(TestCase):
    def test_ReplacesWhatStandsBetweenItsMarks(self):
        self.assertEqual(
            report.replace_section(WITH_SECTION, "it", "\nnew\n"), WITH_SECTION.replace("old", "new")
        )

    def test_StaysAsItIsWhenItIsWrittenAgain(self):
        once = report.replace_section("text\n", "it", "figures")
        self.assertEqual(report.replace_section(once, "it", "figures"), once)

    def test_ComesToTheEndOfADocumentWithoutIt(self):
        text = report.replace_section(f"table\n\n{KEPT}\n\nnotes\n", "it", "figures")
        self.assertEqual(
            text, f"table\n\n{KEPT}\n\nnotes\n\n<!-- it: begin -->\n\nfigures\n\n<!-- it: end -->\n"
        )

    def test_LeavesAnotherSectionAlone(self):
        text = report.replace_section(report.replace_section(WITH_SECTION, "other", "b"), "it", "c")
        self.assertIn("<!-- other: begin -->\n\nb\n\n<!-- other: end -->", text)
        self.assertIn("<!-- it: begin -->\n\nc\n\n<!-- it: end -->", text)

    def test_IsRefusedWithMarksThatDoNotFit(self):
        begin, end = "<!-- it: begin -->", "<!-- it: end -->"
        for text in (begin, end, f"{end} {begin}", f"{begin} {begin} {end}", f"{begin} {end} {end}"):
            with self.subTest(text), self.assertRaises(ValueError):
                report.replace_section(text, "it", "figures")

    def test_StandsWhereTheComparisonKeepsIt(self):
        kept = DOCUMENT.read_text(encoding="utf-8").split(KEPT, 1)[1]
        for name in ("growth", "mutex"):
            with self.subTest(name):
                self.assertEqual(kept.count(f"<!-- {name}: begin -->"), 1)
                self.assertEqual(kept.count(f"<!-- {name}: end -->"), 1)
