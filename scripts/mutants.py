#!/usr/bin/env python3
"""Mutation sampler for the driver sources (kv_3000/, serviceForProtocol/).

Makes N mutants from a fixed seed, one small change each, rebuilds a scratch
copy of the tree incrementally, runs the chosen CTest labels and reports which
mutants the tests kill. scripts/mutants.sh is the entry point; see
tests/README.md.
"""

import argparse
import bisect
import difflib
import math
import os
import random
import re
import shutil
import signal
import subprocess
import sys
import time
from dataclasses import dataclass
from pathlib import Path

ROOT = Path(__file__).resolve().parent.parent
SOURCE_DIRS = ("kv_3000", "serviceForProtocol")
DEFAULT_SEED = 3000

# --------------------------------------------------------------------------
# Lexing: tokens of a C++ source, without comments and preprocessor lines.


@dataclass
class Tok:
    kind: str  # "id", "num", "str", "chr", "op"
    text: str
    start: int  # offset in the file text
    end: int
    line: int
    space_before: bool
    space_after: bool = False


PUNCTUATORS = sorted(
    """>>= <<= <=> ->* ... :: -> ++ -- << >> <= >= == != && || += -= *= /= %= &= |= ^= .* ##
    { } [ ] ( ) ; : ? , . + - * / % ^ & | ~ ! = < > #""".split(),
    key=len,
    reverse=True,
)
ID_RE = re.compile(r"[A-Za-z_][A-Za-z_0-9]*")
NUM_RE = re.compile(r"\.?[0-9](?:'?[0-9A-Za-z_]|[eEpP][+-]|\.)*")
STRING_PREFIXES = ("u8R", "uR", "UR", "LR", "R", "u8", "u", "U", "L", "")


def lex(text):
    toks = []
    i, n, line = 0, len(text), 1
    at_line_start = True
    space = True

    def skip_to_eol(k):
        # end of a line, honouring backslash continuations
        while k < n and text[k] != "\n":
            if text[k] == "\\" and k + 1 < n and text[k + 1] == "\n":
                k += 2
                continue
            k += 1
        return k

    while i < n:
        c = text[i]
        if c == "\n":
            line += 1
            i += 1
            at_line_start = True
            space = True
            continue
        if c in " \t\r\f\v":
            i += 1
            space = True
            continue
        if text.startswith("//", i):
            i = skip_to_eol(i)
            space = True
            continue
        if text.startswith("/*", i):
            j = text.find("*/", i + 2)
            j = n if j < 0 else j + 2
            line += text.count("\n", i, j)
            i = j
            space = True
            continue
        if c == "#" and at_line_start:
            j = skip_to_eol(i)
            line += text.count("\n", i, j)
            i = j
            continue
        at_line_start = False
        start = i
        kind = None
        m = ID_RE.match(text, i)
        if m:
            word = m.group(0)
            nxt = m.end()
            if word in STRING_PREFIXES and nxt < n and text[nxt] in "\"'":
                if word.endswith("R") and text[nxt] == '"':
                    close = text.find("(", nxt)
                    delim = text[nxt + 1 : close]
                    j = text.find(")" + delim + '"', close)
                    i = n if j < 0 else j + len(delim) + 2
                    kind = "str"
                else:
                    i, kind = skip_quoted(text, nxt), ("str" if text[nxt] == '"' else "chr")
            else:
                i, kind = nxt, "id"
        elif c.isdigit() or (c == "." and i + 1 < n and text[i + 1].isdigit()):
            i, kind = NUM_RE.match(text, i).end(), "num"
        elif c in "\"'":
            i, kind = skip_quoted(text, i), ("str" if c == '"' else "chr")
        else:
            for p in PUNCTUATORS:
                if text.startswith(p, i):
                    i, kind = i + len(p), "op"
                    break
            else:
                i, kind = i + 1, "op"
        if toks and not space and start == toks[-1].end:
            toks[-1].space_after = False
        elif toks:
            toks[-1].space_after = True
        toks.append(Tok(kind, text[start:i], start, i, line, space))
        line += text.count("\n", start, i)
        space = False
    if toks:
        toks[-1].space_after = True
    return toks


def skip_quoted(text, i):
    q, j, n = text[i], i + 1, len(text)
    while j < n and text[j] != q and text[j] != "\n":
        j += 2 if text[j] == "\\" else 1
    return min(j + 1, n)


# --------------------------------------------------------------------------
# Finding the places a mutant can go.


@dataclass
class Mutant:
    path: str  # relative to the tree root
    line: int
    start: int
    end: int
    before: str
    after: str
    op: str

    def key(self):
        return (self.path, self.start, self.end, self.after)

    def label(self):
        return f"{self.path}:{self.line}  {quote(self.before)} -> {quote(self.after)}"


def quote(s, limit=70):
    s = " ".join(s.split())
    return "'" + (s if len(s) <= limit else s[: limit - 3] + "...") + "'"


RELATIONAL = {"<": ">=", ">=": "<", "<=": ">", ">": "<=", "==": "!=", "!=": "=="}
ASSIGN_OPS = {"=", "+=", "-=", "*=", "/=", "%=", "&=", "|=", "^=", "<<=", ">>="}
INT_RE = re.compile(r"^(0[xX][0-9a-fA-F']+|0[bB][01']+|0|[1-9][0-9']*)([uUlL]*)$")
INTEGRAL = {"int", "unsigned", "signed", "short", "long", "char", "size_t", "ssize_t", "ptrdiff_t",
            "qint8", "qint16", "qint32", "qint64", "quint8", "quint16", "quint32", "quint64", "uchar",
            "ushort", "uint", "ulong", "qsizetype"}
INTEGRAL_RE = re.compile(r"^u?int(8|16|32|64|ptr|max)?_t$")
SPECIFIERS = {"static", "inline", "constexpr", "virtual", "explicit", "extern", "friend", "consteval",
              "Q_DECL_EXPORT", "Q_DECL_IMPORT"}
CONTROL = {"if", "for", "while", "switch", "catch"}
NOT_EXPRESSION_START = {
    "return", "break", "continue", "goto", "delete", "throw", "if", "for", "while", "do", "switch",
    "case", "default", "else", "const", "static", "auto", "using", "typedef", "namespace", "struct",
    "class", "enum", "union", "template", "typename", "constexpr", "inline", "extern", "volatile",
    "static_assert", "Q_UNUSED", "Q_ASSERT", "assert", "try", "new", "sizeof",
}
SKIPPED_CALLS = {"static_assert", "alignas", "decltype", "Q_UNUSED", "Q_ASSERT", "Q_STATIC_ASSERT"}


class Scanner:
    """Walks the tokens of one file once and collects the candidate sites."""

    def __init__(self, path, text):
        self.path, self.text = path, text
        self.toks = lex(text)
        self.match = self._match_brackets()
        self.template_close = {}
        self.brace_kinds = {}  # '{' index -> kind, filled in by scan()
        self.skip = [False] * len(self.toks)
        self._mark_skipped()
        self.out = []

    def _match_brackets(self):
        match, stack = {}, []
        pairs = {")": "(", "]": "[", "}": "{"}
        for k, t in enumerate(self.toks):
            if t.kind == "op" and t.text in ("(", "[", "{"):
                stack.append(k)
            elif t.kind == "op" and t.text in pairs:
                while stack and self.toks[stack[-1]].text != pairs[t.text]:
                    stack.pop()
                if stack:
                    o = stack.pop()
                    match[o], match[k] = k, o
        return match

    def is_template_open(self, k):
        # clang-format writes template brackets tight: vector<int>, template <class T>
        t = self.toks[k]
        if t.text != "<" or k == 0:
            return False
        p = self.toks[k - 1]
        return p.text == "template" or (p.kind == "id" and not t.space_before and p.text != "operator")

    def _template_end(self, k):
        """Index of the '>' (or '>>') closing the template '<' at k, else None."""
        depth = 0
        for j in range(k, min(len(self.toks), k + 200)):
            t = self.toks[j].text
            if t == "<" and (j == k or self.is_template_open(j)):
                depth += 1
            elif t == ">":
                depth -= 1
            elif t == ">>":
                depth -= 2
            elif t in (";", "{", "}"):
                return None
            if depth <= 0:
                return j
        return None

    def _mark_skipped(self):
        toks, skip = self.toks, self.skip
        for k, t in enumerate(toks):
            if t.kind == "id" and t.text in SKIPPED_CALLS and k + 1 < len(toks) and toks[k + 1].text == "(":
                close = self.match.get(k + 1, k + 1)
                for j in range(k, close + 1):
                    skip[j] = True
            elif t.text == "[" and k + 1 < len(toks) and toks[k + 1].text == "[" and k in self.match:
                for j in range(k, self.match[k] + 1):  # [[attributes]]
                    skip[j] = True
            elif self.is_template_open(k):
                e = self._template_end(k)
                if e is not None:
                    self.template_close[e] = k
                    for j in range(k, e + 1):
                        skip[j] = True  # template arguments: not mutated
            elif t.text == "[" and k in self.match and self._is_array_size(k):
                for j in range(k, self.match[k] + 1):
                    skip[j] = True

    def _is_array_size(self, k):
        # "Type name[N]" in a declaration, not "a[i]" in an expression
        if k < 2:
            return False
        name, before = self.toks[k - 1], self.toks[k - 2]
        if name.kind != "id":
            return False
        return (before.kind == "id" and before.text not in {"return", "case", "else", "throw", "delete"}) or (
            before.text in {"*", "&", ">"} and not before.space_after
        )

    # ---- contexts of braces ------------------------------------------------

    def _statement_head(self, k):
        """Index of the first token of the statement or declaration that the
        token at k belongs to (stepping back over balanced brackets)."""
        j = k - 1
        while j >= 0:
            t = self.toks[j]
            if t.text in (";", "{", "}") and t.kind == "op":
                # braces inside an expression (a lambda, a braced initialiser) do not end it
                if t.text == "}" and self.brace_kinds.get(self.match.get(j)) in ("lambda", "init"):
                    j = self.match[j] - 1
                    continue
                return j + 1
            if t.text in (")", "]") and j in self.match:
                j = self.match[j] - 1
                continue
            j -= 1
        return 0

    def brace_kind(self, k, outer):
        """What the '{' at k opens: 'namespace', 'class', 'function', 'lambda',
        'block' or 'init'; outer is the kind of the enclosing brace."""
        toks = self.toks
        prev = toks[k - 1] if k else None
        in_code = outer in ("function", "lambda", "block")
        head = self._statement_head(k)
        words = [t.text for t in toks[head:k]]
        if prev is None:
            return "namespace"
        # a lambda: [captures](params) specifiers -> type {   or   [captures] {
        j = k - 1
        while j >= 0 and toks[j].kind == "id" and toks[j].text in ("mutable", "noexcept", "constexpr"):
            j -= 1
        arrow = None
        for a in range(k - 1, max(head - 1, k - 12), -1):
            if toks[a].text == "->":
                arrow = a
                break
            if toks[a].text in (")", "(", ";", "{", "}", "="):
                break
        if arrow is not None:
            j = arrow - 1
        if j >= 0 and toks[j].text == ")" and j in self.match:
            o = self.match[j]
            if o > 0 and toks[o - 1].text == "]":
                return "lambda"
        if j >= 0 and toks[j].text == "]" and in_code:
            return "lambda"
        if in_code:
            if prev.text in (";", "{", "}", "else", "do", "try", ":") or (
                prev.text == ")" and k - 1 in self.match and self.match[k - 1] > 0
                and toks[self.match[k - 1] - 1].text in CONTROL
            ):
                return "block"
            return "init"
        if outer == "init" or prev.text in ("=", "(", ",", "return"):
            return "init"
        if "namespace" in words or (words[:1] == ["extern"] and len(words) == 2):
            return "namespace"
        if words[:1] == ["enum"] or "enum" in words[:3]:
            return "init"
        paren = next((a for a in range(head, k) if toks[a].text == "(" and a in self.match), None)
        if paren is not None and ("class" not in words[: paren - head] and "struct" not in words[: paren - head]):
            return "function"
        if any(w in words for w in ("class", "struct", "union")):
            return "class"
        return "init"

    def return_class(self, k):
        """Kind of value the function whose body opens at '{' k returns:
        'bool', 'int', 'pointer', 'object', 'void' or None (unknown)."""
        toks = self.toks
        head = self._statement_head(k)
        paren = next((a for a in range(head, k) if toks[a].text == "(" and a in self.match), None)
        if paren is None:
            return None
        words = [t.text for t in toks[head:paren]]
        if "operator" in words:
            words = words[: words.index("operator")]
        else:
            # drop the declarator's name, qualified or not
            while words and (toks[head + len(words) - 1].kind == "id" or words[-1] in ("::", "~")):
                last = words.pop()
                if last not in ("::", "~") and (not words or words[-1] != "::"):
                    break
        words = [w for w in words if w not in SPECIFIERS]
        if not words:
            return "void"  # constructor or destructor
        if words[-1] in ("&", "&&"):
            return None  # a reference: another value would dangle
        if "*" in words:
            return "pointer"
        if words == ["bool"]:
            return "bool"
        if words == ["void"]:
            return "void"
        if words == ["auto"] or "template" in words:
            return None
        if all(w in INTEGRAL or INTEGRAL_RE.match(w) or w in ("std", "::", "const") for w in words):
            return "int"
        return "object"

    # ---- the walk ----------------------------------------------------------

    def scan(self):
        toks = self.toks
        # per open brace: [kind, return class, paren depth inside it]
        stack = [["namespace", None, 0]]
        for k, t in enumerate(toks):
            ctx = stack[-1]
            if t.kind == "op" and t.text == "{":
                kind = self.brace_kind(k, ctx[0])
                if kind == "function":
                    rc = self.return_class(k)
                elif kind == "lambda":
                    rc = self.lambda_return(k)
                else:
                    rc = ctx[1] if kind == "block" else None
                self.brace_kinds[k] = kind
                stack.append([kind, rc, 0])
                continue
            if t.kind == "op" and t.text == "}":
                if len(stack) > 1:
                    stack.pop()
                continue
            if t.text in ("(", "["):
                ctx[2] += 1
            elif t.text in (")", "]"):
                ctx[2] = max(0, ctx[2] - 1)
            if self.skip[k]:
                continue
            in_code = ctx[0] in ("function", "lambda", "block")
            if in_code and ctx[2] == 0 and self.starts_statement(k):
                self.removal(k)
            if t.kind == "op":
                self.operator(k)
            elif t.kind == "num":
                self.constant(k)
            elif t.text == "return" and in_code:
                self.returned(k, ctx[1])
        return self.out

    def add(self, a, b, after, op):
        ta, tb = self.toks[a], self.toks[b]
        before = self.text[ta.start : tb.end]
        self.out.append(Mutant(self.path, ta.line, ta.start, tb.end, before, after, op))

    def operator(self, k):
        t = self.toks[k]
        prev = self.toks[k - 1] if k else None
        if prev is None or prev.text == "operator" or k in self.template_close:
            return
        # binary operators are spaced on both sides by clang-format; templates
        # (vector<int>), rvalue references (T&& x) and the like are not
        binary = t.space_before and t.space_after
        if t.text in RELATIONAL and binary:
            self.add(k, k, RELATIONAL[t.text], "relational")
        elif t.text in ("&&", "||") and binary:
            self.add(k, k, "||" if t.text == "&&" else "&&", "logical")

    def constant(self, k):
        t = self.toks[k]
        m = INT_RE.match(t.text)
        if not m:
            return
        digits, suffix = m.group(1).replace("'", ""), m.group(2)
        value = int(digits, 0)
        for v in (value + 1, value - 1):
            if v < 0:
                text = f"-{-v}{suffix}"
                if k and self.toks[k - 1].text == "-" and not self.toks[k - 1].space_after:
                    continue  # "--1" would be a decrement
            elif digits[:2].lower() == "0x":
                text = f"0x{v:0{len(digits) - 2}X}{suffix}"
            else:
                text = f"{v}{suffix}"
            self.add(k, k, text, "constant")

    def lambda_return(self, k):
        for a in range(k - 1, max(0, k - 12), -1):
            if self.toks[a].text == "->":
                words = [t.text for t in self.toks[a + 1 : k]]
                if words == ["bool"]:
                    return "bool"
                if all(w in INTEGRAL or INTEGRAL_RE.match(w) or w in ("std", "::") for w in words):
                    return "int"
                return None
            if self.toks[a].text in (")", "]"):
                break
        return None

    def returned(self, k, rclass):
        toks = self.toks
        end = k + 1
        while end < len(toks) and toks[end].text != ";":
            if toks[end].text in ("{", "}"):
                return
            end = self.match.get(end, end) + 1 if toks[end].text in ("(", "[") else end + 1
        if end >= len(toks) or end == k + 1:
            return  # "return;"
        expr = self.text[toks[k + 1].start : toks[end - 1].end]
        literal = INT_RE.match(expr.lstrip("-"))
        operand = expr if self.is_operand(k + 1, end) else f"({expr})"
        if expr in ("true", "false"):
            new = "false" if expr == "true" else "true"
        elif literal and end - k <= 3:
            new = "1" if int(literal.group(1).replace("'", ""), 0) == 0 else "0"
        elif expr in ("nullptr", "NULL", "{}"):
            return
        elif rclass is None and any(toks[j].text in RELATIONAL or toks[j].text in ("&&", "||", "!")
                                    for j in range(k + 1, end)):
            new = f"!{operand}"
        elif rclass == "bool":
            new = f"!{operand}" if not expr.startswith("!") else expr[1:].strip()
        elif rclass == "int":
            # another value whatever this one is (a named one may be 0), without overflow
            new = f"{operand} ^ 1"
        elif rclass == "pointer":
            new = "nullptr"
        elif rclass == "object":
            new = "{}"
        else:
            return
        self.add(k, end, f"return {new};", "return")

    def is_operand(self, a, b):
        """Whether tokens a..b-1 are one operand (a name, a call, a member,
        an element), so that an operator can follow them without brackets."""
        j = a
        while j < b:
            t = self.toks[j]
            if t.text in ("(", "[") and j in self.match:
                j = self.match[j] + 1
            elif self.is_template_open(j) and self._template_end(j) is not None:
                j = self._template_end(j) + 1
            elif t.kind != "op" or t.text in ("::", ".", "->"):
                j += 1
            else:
                return False
        return True

    def starts_statement(self, k):
        toks = self.toks
        if k == 0:
            return False
        prev = toks[k - 1]
        if prev.text in (";", "{", "}"):
            return True
        if prev.text in ("else", "do"):
            return True
        if prev.text == ")" and k - 1 in self.match:
            o = self.match[k - 1]
            return o > 0 and toks[o - 1].text in ("if", "for", "while")
        if prev.text == ":":
            head = self._statement_head(k - 1)
            return toks[head].text in ("case", "default")
        return False

    def removal(self, k):
        """A call or an assignment as a whole statement."""
        toks = self.toks
        t = toks[k]
        j = k
        if t.text in ("++", "--", "*"):
            j += 1
        if j >= len(toks) or toks[j].kind != "id" or toks[j].text in NOT_EXPRESSION_START:
            return
        last_call = False
        j += 1
        while j < len(toks):
            x = toks[j].text
            if x in (".", "->", "::") and j + 1 < len(toks) and toks[j + 1].kind == "id":
                j += 2
                last_call = False
            elif x in ("(", "[") and j in self.match:
                last_call = x == "("
                j = self.match[j] + 1
            elif x == "<" and self.is_template_open(j):
                e = self._template_end(j)
                if e is None:
                    return
                j = e + 1
            else:
                break
        if j >= len(toks):
            return
        x = toks[j].text
        if x in ASSIGN_OPS or x in ("++", "--") or (t.text in ("++", "--") and x == ";"):
            pass
        elif x == ";" and last_call:
            pass
        elif x == "<<" and last_call:
            pass  # qWarning() << ...
        else:
            return
        end = j
        while end < len(toks) and toks[end].text != ";":
            if toks[end].text in ("{", "}"):
                return  # a lambda or braces in it: not a plain statement
            end = self.match.get(end, end) + 1 if toks[end].text in ("(", "[") else end + 1
        if end >= len(toks):
            return
        if toks[k - 1].text in (")", "else", "do"):
            self.add(k, end, ";", "removal")  # the body of an if or a loop
            return
        # a statement on a line of its own goes with its line
        a, b = self.text.rfind("\n", 0, toks[k].start) + 1, self.text.find("\n", toks[end].end)
        b = len(self.text) if b < 0 else b + 1
        if self.text[a : toks[k].start].isspace() and not self.text[toks[end].end : b].strip():
            self.out.append(Mutant(self.path, toks[k].line, a, b, self.text[a:b], "", "removal"))
        else:
            self.add(k, end, "", "removal")


def candidates(root, with_headers):
    out = []
    for d in SOURCE_DIRS:
        for p in sorted((root / d).rglob("*")):
            if p.suffix == ".cpp" or (with_headers and p.suffix == ".h"):
                rel = p.relative_to(root).as_posix()
                out.extend(Scanner(rel, p.read_text(encoding="utf-8")).scan())
    seen, unique = set(), []
    for m in out:
        if m.key() not in seen:
            seen.add(m.key())
            unique.append(m)
    return unique


def sample(cands, seed):
    """All sites in a seeded order, each with one of its changes (a constant
    goes up or down by one) so that no site weighs more than another."""
    sites = {}
    for m in cands:
        sites.setdefault((m.path, m.start, m.end), []).append(m)
    rng = random.Random(seed)
    order = list(sites.values())
    rng.shuffle(order)
    return [rng.choice(variants) for variants in order]


def run_key(m):
    return (m.path, m.start, m.end, m.after)


# --------------------------------------------------------------------------
# The scratch tree and the build.


class Failure(Exception):
    pass


def source_files(root, exclude):
    """The tree's files as git sees them (tracked and new, not ignored)."""
    try:
        res = subprocess.run(["git", "-C", str(root), "ls-files", "-z", "--cached", "--others",
                              "--exclude-standard"], capture_output=True, check=True)
        names = [n for n in res.stdout.decode().split("\0") if n]
    except (OSError, subprocess.CalledProcessError):
        names = [p.relative_to(root).as_posix() for p in root.rglob("*")
                 if p.is_file() and ".git" not in p.parts and not p.parts[len(root.parts)].startswith("build")]
    out = []
    for n in names:
        p = root / n
        if p.is_file() and not is_within(p, exclude):
            out.append(n)
    return sorted(out)


def is_within(p, d):
    try:
        p.resolve().relative_to(d.resolve())
        return True
    except ValueError:
        return False


def sync_tree(root, dest, exclude):
    """Makes dest a copy of the source tree, rewriting only the files that
    differ so that the incremental build stays incremental."""
    files = source_files(root, exclude)
    wanted = set(files)
    for n in files:
        src, dst = root / n, dest / n
        data = src.read_bytes()
        if not dst.is_file() or dst.read_bytes() != data:
            dst.parent.mkdir(parents=True, exist_ok=True)
            dst.write_bytes(data)
            shutil.copymode(src, dst)
    if dest.is_dir():
        for p in dest.rglob("*"):
            if p.is_file() and p.relative_to(dest).as_posix() not in wanted:
                p.unlink()


def run_logged(cmd, log, progress=None):
    """Runs cmd with its output in log; progress(line) sees each line."""
    with open(log, "w") as f:
        proc = subprocess.Popen(cmd, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True)
        try:
            for line in proc.stdout:
                f.write(line)
                if progress:
                    progress(line)
        finally:
            if proc.poll() is None:
                proc.terminate()
            proc.wait()
    return proc.returncode


class BuildProgress:
    """Shows a long build's [done/total] on one line (or every 10 % in a log)."""

    def __init__(self, what):
        self.what, self.shown, self.tty = what, -1, sys.stderr.isatty()

    def __call__(self, line):
        m = re.match(r"\[\s*(\d+)/(\d+)\]", line) or re.match(r"\[\s*(\d+)%\]", line)
        if not m:
            return
        done, total = (int(m.group(1)), int(m.group(2))) if m.lastindex == 2 else (int(m.group(1)), 100)
        pct = 100 * done // max(total, 1)
        if self.tty:
            sys.stderr.write(f"\r  {self.what}: [{done}/{total}]")
            sys.stderr.flush()
        elif pct // 10 > self.shown:
            self.shown = pct // 10
            print(f"  {self.what}: {pct}%", file=sys.stderr, flush=True)

    def end(self):
        if self.tty:
            sys.stderr.write("\n")


TEST_LINE = re.compile(r"Test\s+#\d+:\s+(\S+)\s+\.*\s*(\*{0,3}[A-Za-z ]+?)\s+([\d.]+) sec")


def needs_tools(labels):
    # the unit label holds the host's tests; sim, e2e and stress run the tools
    return any(re.search(labels, lab) for lab in ("unit", "sim", "e2e", "stress"))


def tests_cmd(build, labels, jobs, timeout, stop):
    cmd = ["ctest", "--test-dir", str(build), "-L", labels, "-j", str(jobs), "--timeout", str(timeout),
           "--no-tests=error"]
    return cmd + (["--stop-on-failure"] if stop else [])


# --------------------------------------------------------------------------


def parse_args(argv):
    ap = argparse.ArgumentParser(
        prog="scripts/mutants.sh",
        description="Mutation sampler: N one-change mutants of kv_3000/ and serviceForProtocol/, "
        "each rebuilt in a scratch copy of the tree and tested with the chosen CTest labels.",
        epilog="The working tree is never changed. Results: one line per mutant, then "
        "'N mutants: K killed, S survived'; survivors with their diffs in BUILD/survivors.txt.")
    ap.add_argument("--n", type=int, default=150, help="number of mutants to run (default 150)")
    ap.add_argument("--seed", type=int, default=DEFAULT_SEED, help=f"sampling seed (default {DEFAULT_SEED})")
    ap.add_argument("--labels", default="unit", help="CTest label regex of the tests to run (default 'unit')")
    ap.add_argument("--jobs", type=int, default=min(2, os.cpu_count() or 1),
                    help="parallel build and test jobs (default 2)")
    ap.add_argument("--build", default=str(ROOT / "build-mutants"),
                    help="scratch directory: source copy, build, logs (default build-mutants/)")
    ap.add_argument("--timeout", type=float, default=0,
                    help="seconds one test may run before its mutant counts as killed by timeout "
                    "(default: 5 x the slowest test of the unmutated tree, at least 20)")
    ap.add_argument("--headers", action="store_true",
                    help="mutate the .h files too (each such mutant rebuilds the tests that include it)")
    ap.add_argument("--list", action="store_true", help="print the sampled mutants in run order and stop")
    args = ap.parse_args(argv)
    if args.n < 1 or args.jobs < 1 or args.timeout < 0:
        ap.error("--n and --jobs must be at least 1, --timeout not negative")
    try:
        re.compile(args.labels)
    except re.error as e:
        ap.error(f"--labels is not a valid regular expression: {e}")
    return args


HANDLED_SIGNALS = (signal.SIGINT, signal.SIGTERM, signal.SIGHUP)


class Interrupted(Exception):
    pass


def on_signal(signum, _frame):
    raise Interrupted(signal.Signals(signum).name)


@dataclass
class Tally:
    killed: int = 0
    survived: int = 0
    replaced: int = 0
    seconds: float = 0.0
    survivors: Path = None

    def report(self, wanted):
        n = self.killed + self.survived
        print(f"{n} mutants: {self.killed} killed, {self.survived} survived")
        rate = 100.0 * self.killed / n if n else 0.0
        print(f"kill rate {rate:.1f}%; {self.replaced} did not compile and were replaced; "
              f"{self.seconds / max(n, 1):.0f} s per mutant; survivors with their diffs in {self.survivors}")
        if n < wanted:
            print(f"ran {n} of the {wanted} wanted", file=sys.stderr)


def main(argv):
    args = parse_args(argv)
    cands = candidates(ROOT, args.headers)
    pool = sample(cands, args.seed)
    if not pool:
        print("no mutation sites found", file=sys.stderr)
        return 1
    first = sorted(pool[: args.n], key=run_key)
    if args.list:
        for m in first:
            print(m.label())
        print(f"{len(first)} of {len(pool)} candidate sites, seed {args.seed}")
        return 0

    work = Path(args.build).resolve()
    work.mkdir(parents=True, exist_ok=True)
    for s in HANDLED_SIGNALS:
        signal.signal(s, on_signal)
    tally = Tally(survivors=work / "survivors.txt")
    try:
        build, timeout = prepare(args, pool, work)
        run(args, pool, first, work, build, timeout, tally)
    except Failure as e:
        print(f"error: {e}", file=sys.stderr)
        return 1
    except Interrupted as e:
        print(f"\ninterrupted ({e}); the scratch copy is restored", file=sys.stderr)
        if tally.killed + tally.survived:
            tally.report(args.n)
        return 130
    tally.report(args.n)
    return 0


def prepare(args, pool, work):
    """Copies, configures, builds and tests the unmutated tree; returns the
    build directory and the per-test timeout."""
    src, build = work / "src", work / "build"
    print(f"copying the sources to {src}", file=sys.stderr, flush=True)
    sync_tree(ROOT, src, work)
    generator = ["-G", "Ninja"] if shutil.which("ninja") else []
    if (build / "CMakeCache.txt").is_file():
        generator = []  # keep the one it was configured with
    tools = "ON" if needs_tools(args.labels) else "OFF"
    cfg = ["cmake", "-S", str(src), "-B", str(build), *generator, "-DCMAKE_BUILD_TYPE=RelWithDebInfo",
           "-DKV_BUILD_TESTS=ON", f"-DKV_BUILD_TOOLS={tools}", "-DKV_BUILD_BENCH=OFF", "-DKV_BUILD_FUZZ=OFF",
           "-DKV_SANITIZE=", "-DKV_CORE_SHARED=ON"]
    print("configuring", file=sys.stderr, flush=True)
    if run_logged(cfg, work / "configure.log") != 0:
        raise Failure(f"configuring the scratch tree failed; see {work / 'configure.log'}")
    progress = BuildProgress("building the unmutated tree")
    rc = run_logged(build_cmd(build, args.jobs), work / "build.log", progress)
    progress.end()
    if rc != 0:
        raise Failure(f"the unmutated tree does not build; see {work / 'build.log'}")

    print(f"testing the unmutated tree (ctest -L '{args.labels}')", file=sys.stderr, flush=True)
    t0 = time.monotonic()
    rc = run_logged(tests_cmd(build, args.labels, args.jobs, 600, False), work / "baseline.log")
    secs = time.monotonic() - t0
    log = (work / "baseline.log").read_text(errors="replace")
    if "No tests were found" in log:
        raise Failure(f"no test has a label matching '{args.labels}' (labels: unit, sim, e2e, stress, ...)")
    if rc != 0:
        raise Failure(f"the unmutated tree fails its tests (ctest -L '{args.labels}'), so no mutant "
                      f"can be judged; fix them first. See {work / 'baseline.log'}")
    durations = [float(m.group(3)) for m in TEST_LINE.finditer(log)]
    timeout = args.timeout or max(20, math.ceil(5 * max(durations, default=1)))
    print(f"{len(durations)} tests pass in {secs:.0f} s; per-test timeout {timeout:g} s; "
          f"{len(pool)} candidate sites, seed {args.seed}", file=sys.stderr, flush=True)
    return build, timeout


def build_cmd(build, jobs):
    return ["cmake", "--build", str(build), "-j", str(jobs)]


def run(args, pool, first, work, build, timeout, tally):
    """Runs the mutants in file order (fewer rebuilds); one that does not
    compile is replaced by the next one of the sample."""
    src = work / "src"
    tally.survivors.write_text(f"# survivors of scripts/mutants.sh --n {args.n} --seed {args.seed} "
                               f"--labels '{args.labels}'\n")
    pending, next_pool = list(first), len(first)
    while pending:
        m = pending.pop(0)
        path = src / m.path
        original = path.read_text(encoding="utf-8")
        if original[m.start : m.end] != m.before:
            raise Failure(f"{m.path} in the scratch copy is not what was sampled; run again")
        mutated = original[: m.start] + m.after + original[m.end :]
        tag = f"[{tally.killed + tally.survived + 1}/{args.n}] {m.label()}"
        t0 = time.monotonic()
        try:
            path.write_text(mutated, encoding="utf-8")
            if run_logged(build_cmd(build, args.jobs), work / "mutant-build.log") != 0:
                result = None
            else:
                rc = run_logged(tests_cmd(build, args.labels, args.jobs, timeout, True), work / "mutant-test.log")
                out = (work / "mutant-test.log").read_text(errors="replace")
                result = "survived" if rc == 0 else "killed (timeout)" if "***Timeout" in out else "killed"
        finally:
            # a second Ctrl-C must not leave the mutant behind
            blocked = signal.pthread_sigmask(signal.SIG_BLOCK, HANDLED_SIGNALS)
            path.write_text(original, encoding="utf-8")
            signal.pthread_sigmask(signal.SIG_SETMASK, blocked)
        if result is None:
            tally.replaced += 1
            print(f"{tag}  does not compile: replaced", flush=True)
            if next_pool < len(pool):
                bisect.insort(pending, pool[next_pool], key=run_key)
                next_pool += 1
            continue
        tally.seconds += time.monotonic() - t0
        print(f"{tag}  {result}", flush=True)
        if result == "survived":
            tally.survived += 1
            diff = difflib.unified_diff(original.splitlines(True), mutated.splitlines(True),
                                        f"a/{m.path}", f"b/{m.path}", n=2)
            with open(tally.survivors, "a") as f:
                f.write(f"\n{m.label()}\n{''.join(diff)}")
        else:
            tally.killed += 1


if __name__ == "__main__":
    sys.exit(main(sys.argv[1:]))
