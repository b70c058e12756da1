#!/usr/bin/env python3
"""Which changes scripts/mutants.py finds in a line of C++; its sample depends on the seed alone."""
import sys
import unittest
from pathlib import Path

sys.dont_write_bytecode = True
sys.path.insert(0, str(Path(__file__).resolve().parents[2] / "scripts"))
import mutants  # noqa: E402

# (function body or file-level line, changes expected: "before -> after", ...)
CASES = [
    ("bool f(int a, int b) { return a < b && b >= 2; }",
     {"return a < b && b >= 2; -> return !(a < b && b >= 2);", "< -> >=", "&& -> ||", ">= -> <", "2 -> 3", "2 -> 1"}),
    ("int f(int v) { return v; }", {"return v; -> return v ^ 1;"}),
    ("int f() { return -1; }", {"return -1; -> return 0;", "1 -> 2", "1 -> 0"}),
    ("const char* f(const char* p) { return p + 1; }", {"return p + 1; -> return nullptr;", "1 -> 2", "1 -> 0"}),
    ("const QString& f() { return name; }", set()),
    ("void f(X* p) { p->run(); x = a >> 2 << 1; }",
     {"p->run(); -> ", "x = a >> 2 << 1; -> ", "2 -> 3", "2 -> 1", "1 -> 2", "1 -> 0"}),
    ("void f(int x) { if (x == 0) g(x); }", {"== -> !=", "0 -> 1", "0 -> -1", "g(x); -> ;"}),
    ("void f(std::vector<int>&& v) { std::map<int, std::vector<int>> m; }", set()),
    ("void f() { int y = g(1); QMutexLocker lock(&m); auto z = static_cast<int>(y); }", {"1 -> 2", "1 -> 0"}),
    ("void f() { char buf[16]; // a < b\n h(\"a < b\", '<'); }", {"h(\"a < b\", '<'); -> "}),
    ("#define LIMIT (1 < 2)\nstatic_assert(3 > 2, \"x\");\ntemplate <typename T> struct S {};", set()),
    ("namespace {\nvoid h() {}\n}  // namespace\nbool f() const { g(); return ok; }",
     {"g(); -> ", "return ok; -> return !ok;"}),
    ("void f(int n) { for (int i = 0; i < n; ++i) ++k; }", {"0 -> 1", "0 -> -1", "< -> >=", "++k; -> ;"}),
    ("void f() { std::sort(a, b, [&](int x, int y) { return x < y; }); }",
     {"std::sort(a, b, [&](int x, int y) { return x < y; }); -> ", "return x < y; -> return !(x < y);",
      "< -> >="}),
]


class Sites(unittest.TestCase):
    def test_cases(self):
        for code, expected in CASES:
            with self.subTest(code=code):
                self.assertEqual({f"{m.before} -> {m.after}" for m in mutants.Scanner("x.cpp", code).scan()}, expected)

    def test_sample_depends_on_seed_only(self):
        cands = mutants.Scanner("x.cpp", " ".join(c for c, _ in CASES if not c.startswith("#"))).scan()
        keys = lambda seed: [m.key() for m in mutants.sample(cands, seed)]  # noqa: E731
        self.assertEqual(keys(7), keys(7))
        self.assertNotEqual(keys(7), keys(8))
        self.assertEqual(len(keys(7)), len({(m.start, m.end) for m in cands}))


if __name__ == "__main__":
    unittest.main()
