#!/usr/bin/env bash
# Checks that scripts/deps.sh installs everything the tests, the scripts, the benchmarks and
# the demo use, so that a fresh Debian machine passes as this one does. Installs the list
# first (deps.sh: quick when all is there), because a need is traced to its package through
# the package's files. Then it finds what the tree needs:
#   Python modules  every import in the *.py files and in `python3 -c` snippets of shell
#                   scripts (ast), and what each third-party import loads in turn: every such
#                   import statement runs in a fresh /usr/bin/python3 -I, and each module it
#                   adds to sys.modules from outside the standard library is needed too;
#   programs        the command words of the shell scripts (a small shell lexer: quotes,
#                   $(...), heredocs, case patterns, functions, wrappers like exec and
#                   command -v), the argument lists handed to subprocess, os.exec* and
#                   shutil.which() in Python, COMMAND and find_program in CMake files,
#                   exec*/posix_spawn*/popen/std::system in the C++ of tests/, bench/ and
#                   fuzz/, and the few names only made at run time (UNDERIVABLE below);
# and finds each one's Debian package with dpkg -S. A package is covered when apt installs it
# with the list: the list, the extra packages the script in question passes to deps.sh, and
# everything they Depend or Pre-Depend on (never Recommends), or when Debian makes it
# Essential or Priority required. The standard library and the project's own programs need
# nothing. Prints one line per package missing from the list and exits 1; otherwise one
# summary line, exit 0. A need that only a script's extra packages could meet, while those are
# not installed here, is reported as not checked (run that script once to check it).
#   bash scripts/check-deps.sh [-v]     (-v: every need and the package that provides it)
# CHECK_DEPS_LIST names an edited copy of deps.sh to check instead, to try the check itself.
set -euo pipefail
cd "$(dirname "$0")/.."
list=${CHECK_DEPS_LIST:-scripts/deps.sh}
[ -f "$list" ] || { echo "check-deps: no $list" >&2; exit 2; }
bash "$list" >&2
exec /usr/bin/python3 -I - "$list" "$@" <<'PY'
import ast
import bisect
import fnmatch
import json
import os
import re
import subprocess
import sys
import time

started = time.monotonic()
LIST = sys.argv[1]
VERBOSE = "-v" in sys.argv[2:]
ROOT = os.getcwd()
PYTHON = "/usr/bin/python3"  # the interpreter CTest runs the end-to-end scripts with
# Debian's default PATH: where a program run by name is looked for.
SYSTEM_PATH = ["/usr/local/sbin", "/usr/local/bin", "/usr/sbin", "/usr/bin", "/sbin", "/bin"]

# Programs whose names no scan can see, each with the file that runs it and how.
UNDERIVABLE = [
    ("scripts/build.sh", "ninja", "cmake -G Ninja"),
    ("scripts/build.sh", "cc", "CMake's C compiler"),
    ("scripts/build.sh", "c++", "CMake's C++ compiler"),
    ("scripts/fuzz.sh", "clang", "CC=clang for cmake"),
    ("scripts/fuzz.sh", "clang++", "CXX=clang++ for cmake"),
    ("scripts/cross.sh", "qemu-ppc-static", "$(qemu powerpc)"),
    ("scripts/cross.sh", "qemu-s390x-static", "$(qemu s390x)"),
] + [("scripts/cross.sh", f"{t}-{tool}", f"$(triplet)-{tool}")
     for t in ("powerpc-linux-gnu", "s390x-linux-gnu")
     for tool in ("gcc", "g++", "ar", "strip", "readelf")]
# Needs that are optional where they appear.
IGNORED = {
    ("scripts/deps.sh", "sudo"),  # only when not root, and it says so when sudo is missing
}


def rel(path):
    return os.path.relpath(path, ROOT)


# --- the tree -------------------------------------------------------------------------------
def skipped_dir(parent, name):
    if name.startswith("build") or name in ("__pycache__", "corpus"):  # corpus: fuzz seeds
        return True
    if name.startswith(".") and name != ".ci":
        return True
    # The package's maintainer scripts run on the device, under the package's own Depends.
    return parent == ROOT and name == "packaging"


def shebang(path):
    """The interpreter named by a file's #! line, or None."""
    try:
        with open(path, "rb") as f:
            first = f.readline(200).decode(errors="replace")
    except OSError:
        return None
    m = re.match(r"#!\s*(\S+)(?:\s+(\S+))?", first)
    if not m:
        return None
    return m.group(2) if m.group(1).endswith("/env") and m.group(2) else m.group(1)


py_files, sh_files, cmake_files, cxx_files = [], [], [], []
for dirpath, dirnames, filenames in os.walk(ROOT):
    dirnames[:] = sorted(d for d in dirnames if not skipped_dir(dirpath, d))
    top = rel(dirpath).split(os.sep)[0]
    for name in sorted(filenames):
        path = os.path.join(dirpath, name)
        if name.endswith(".py"):
            py_files.append(path)
        elif name.endswith(".sh"):
            sh_files.append(path)
        elif name == "CMakeLists.txt" or name.endswith(".cmake"):
            cmake_files.append(path)
        elif name.endswith((".cpp", ".cc", ".c", ".h", ".hpp")):
            if top in ("tests", "bench", "fuzz"):
                cxx_files.append(path)
        elif "." not in name:
            interpreter = os.path.basename(shebang(path) or "")
            if interpreter in ("sh", "bash"):
                sh_files.append(path)
            elif interpreter.startswith("python3"):
                py_files.append(path)

# kind ("module" or "program") -> name -> uses: (file relative to the root, line, how)
needs = {"module": {}, "program": {}}


def need(kind, name, path, line, how=""):
    if (rel(path), name) not in IGNORED:
        needs[kind].setdefault(name, []).append((rel(path), line, how))


# --- shell ----------------------------------------------------------------------------------
class Word:
    """A shell word: its text with quotes removed and each expansion as \\0, and its source."""

    def __init__(self, text, raw, line):
        self.text, self.raw, self.line = text, raw, line

    @property
    def dynamic(self):
        return "\0" in self.text


OPS = sorted([";;&", ";;", ";&", ";", "&&", "||", "|&", "|", "&>>", "&>", "&", "(", ")",
              "<<<", "<<-", "<<", "<&", "<>", ">>", ">&", ">|", "<", ">", "\n"],
             key=len, reverse=True)
REDIRS = {"&>>", "&>", "<<<", "<&", "<>", ">>", ">&", ">|", "<", ">", "<<", "<<-"}
KEYWORDS = {"if", "then", "elif", "else", "do", "while", "until", "!", "{", "}", "time", "fi",
            "done", "esac"}
ASSIGNMENT = re.compile(r"[A-Za-z_][A-Za-z0-9_]*(\[[^]]*\])?\+?=")


class Shell:
    """The simple commands of a shell script, with its functions and array assignments."""

    def __init__(self, text, line_offset=0, outer=None):
        self.text, self.line_offset, self.heredocs = text, line_offset, []
        self.starts = [0] + [m.end() for m in re.finditer("\n", text)]
        if outer:
            self.commands, self.functions, self.arrays = outer.commands, outer.functions, outer.arrays
        else:
            self.commands, self.functions, self.arrays = [], set(), {}
        self.parse(self.lex(0, None)[0])

    def line(self, i):
        return self.line_offset + bisect.bisect_right(self.starts, i)

    def nested(self, text, line):
        """The commands in a string found on a line (backticks, bash -c, trap)."""
        Shell(text, line - 1, self)

    def skip_quoted(self, i):
        """Past the quoted string opening at i."""
        t = self.text
        if t[i] == "'":
            end = t.find("'", i + 1)
            return len(t) if end < 0 else end + 1
        i += 1
        while i < len(t) and t[i] != '"':
            i += 2 if t[i] == "\\" else 1
        return i + 1

    def matching(self, i, open_, close):
        """Past the `close` that matches an `open_` just before i."""
        depth, t = 1, self.text
        while i < len(t):
            if t[i] == "\\":
                i += 2
            elif t[i] in "'\"":
                i = self.skip_quoted(i)
            elif t.startswith(open_, i):
                depth, i = depth + 1, i + len(open_)
            elif t.startswith(close, i):
                depth, i = depth - 1, i + len(close)
                if depth == 0:
                    return i
            else:
                i += 1
        return len(t)

    def dollar(self, i):
        """Past the expansion at i; a command substitution's commands are taken."""
        t = self.text
        if t.startswith("$((", i):
            return self.matching(i + 3, "(", ")") + 1
        if t.startswith("$(", i):
            tokens, end = self.lex(i + 2, ")")
            self.parse(tokens)
            return end
        if t.startswith("${", i):  # ${x:-$(...)}: the substitution is taken too
            end, j = self.matching(i + 2, "{", "}"), i + 2
            while j < end:
                j = self.dollar(j) if t.startswith("$(", j) else j + 1
            return end
        if t.startswith("$'", i):
            j = i + 2
            while j < len(t) and t[j] != "'":
                j += 2 if t[j] == "\\" else 1
            return j + 1
        m = re.compile(r"\$([A-Za-z_][A-Za-z0-9_]*|[0-9@*#?$!-])").match(t, i)
        return m.end() if m else i + 1

    def backtick(self, i):
        end = self.text.find("`", i + 1)
        end = len(self.text) if end < 0 else end
        self.nested(self.text[i + 1:end], self.line(i))
        return end + 1

    def lex(self, i, until):
        """Words and operators from i to the `until` that closes the text (or its end)."""
        t, tokens, word, start, depth = self.text, [], None, i, 0

        def flush(end):
            nonlocal word
            if word is not None:
                tokens.append(Word(word, t[start:end], self.line(start)))
                word = None

        while i < len(t):
            c = t[i]
            if c == "\\" and t.startswith("\\\n", i):
                i += 2
                continue
            if c in " \t" or (c == "#" and word is None):
                flush(i)
                i = i + 1 if c != "#" else (t.find("\n", i) if "\n" in t[i:] else len(t))
                continue
            if word is None:
                start = i
            if c == "\n":
                flush(i)
                tokens.append("\n")
                i += 1
                while self.heredocs:  # their bodies follow this line
                    delimiter, tabs = self.heredocs.pop(0)
                    while i < len(t):
                        end = t.find("\n", i)
                        end = len(t) if end < 0 else end
                        body, i = t[i:end], end + 1
                        if (body.lstrip("\t") if tabs else body) == delimiter:
                            break
                continue
            if c == ")" and until == ")" and depth == 0:
                flush(i)
                return tokens, i + 1
            if c == "(" and word is not None and ASSIGNMENT.fullmatch(word):
                # name=(...): an array, its words kept for deps.sh's extra packages
                inner, i = self.lex(i + 1, ")")
                items = [w for w in inner if isinstance(w, Word)]
                self.arrays.setdefault(word.rstrip("+="), []).extend(items)
                word += "(\0)"
                continue
            if c in "<>" and t.startswith("(", i + 1):  # process substitution
                tokens_in, i = self.lex(i + 2, ")")
                self.parse(tokens_in)
                word = (word or "") + "\0"
                continue
            if c in ";&|()<>":
                op = next(o for o in OPS if t.startswith(o, i))
                if c in "<>" and word is not None and word.isdigit():
                    word = None  # 2>&1: a file descriptor, not a word
                flush(i)
                if op == "(" and t.startswith("((", i) and (not tokens or isinstance(tokens[-1], str)):
                    i = self.matching(i + 2, "((", "))")  # (( arithmetic ))
                    continue
                depth += {"(": 1, ")": -1}.get(op, 0)
                tokens.append(op)
                i += len(op)
                if op in ("<<", "<<-"):
                    m = re.compile(r"[ \t]*(['\"]?)([^\s'\"<>;&|()]+)\1").match(t, i)
                    if m:
                        self.heredocs.append((m.group(2), op == "<<-"))
                        tokens.append(Word(m.group(2), m.group(0), self.line(i)))
                        i = m.end()
                continue
            word = word or ""
            if c == "'":
                end = self.skip_quoted(i)
                word += t[i + 1:end - 1]
                i = end
            elif c == '"':
                i += 1
                while i < len(t) and t[i] != '"':
                    if t[i] == "\\" and i + 1 < len(t):
                        word += t[i + 1]
                        i += 2
                    elif t[i] == "$":
                        end = self.dollar(i)
                        word += "\0" if end > i + 1 else "$"
                        i = end
                    elif t[i] == "`":
                        i = self.backtick(i)
                        word += "\0"
                    else:
                        word += t[i]
                        i += 1
                i += 1
            elif c == "$":
                end = self.dollar(i)
                word += "\0" if end > i + 1 else "$"
                i = end
            elif c == "`":
                i = self.backtick(i)
                word += "\0"
            elif c == "\\":
                word += t[i + 1:i + 2]
                i += 2
            else:
                word += c
                i += 1
        flush(i)
        return tokens, i

    def parse(self, tokens):
        cmd, cases, in_pattern, i = [], 0, False, 0
        while i < len(tokens):
            tok = tokens[i]
            if in_pattern:  # case patterns, up to their )
                if tok == ")":
                    in_pattern = False
                elif isinstance(tok, Word) and tok.text == "esac":
                    in_pattern, cases = False, cases - 1
                i += 1
            elif isinstance(tok, Word):
                cmd.append(tok)
                i += 1
            elif tok in REDIRS:
                i += 2  # the operator and its target
            elif tok == "(" and len(cmd) == 1 and tokens[i + 1:i + 2] == [")"]:
                self.functions.add(cmd[0].text)  # name() { ...; }
                cmd, i = [], i + 2
            else:
                if self.take(cmd):
                    cases, in_pattern = cases + 1, True
                elif tok in (";;", ";&", ";;&") and cases:
                    in_pattern = True
                cmd, i = [], i + 1
        self.take(cmd)

    def take(self, words):
        """Keeps a simple command; True when it opens a case."""
        while words and words[0].text in KEYWORDS:
            words = words[1:]
        if not words:
            return False
        first = words[0].text
        if first == "function" and len(words) > 1:
            self.functions.add(words[1].text)
        elif first == "case":
            return True
        elif first not in ("for", "select", "[["):
            while words and ASSIGNMENT.match(words[0].text):
                words = words[1:]
            if words:
                self.commands.append(words)
        return False


BUILTINS = set(subprocess.run(["bash", "-c", "compgen -b; compgen -k"], capture_output=True,
                              text=True).stdout.split())
# Wrappers that run the command after them: options that take a value, and leading operands.
WRAPPERS = {"exec": ((), 0), "nohup": ((), 0), "time": ((), 0), "command": ((), 0),
            "env": (("-u", "-C", "-S"), 0), "sudo": (("-u", "-g", "-C"), 0),
            "nice": (("-n",), 0), "timeout": (("-s", "-k"), 1), "taskset": ((), 1),
            "stdbuf": (("-i", "-o", "-e"), 0), "setsid": ((), 0), "xargs": (("-n", "-I"), 0),
            "ionice": (("-c", "-n"), 0), "chrt": ((), 1)}
extras = {}           # script -> extra packages (or patterns) it passes to deps.sh
python_snippets = []  # (file, line, source of a python3 -c)


def program_word(path, word, how=""):
    """A word where a command is: a program unless dynamic, built here or a project script."""
    name = word.text
    if word.dynamic or not name or name in BUILTINS:
        return
    if "/" in name and not name.startswith("/"):
        return  # scripts/..., ./...: the project's own
    if name.startswith(ROOT + "/"):
        return
    need("program", name, path, word.line, how)


def take_command(sh, path, words):
    name = words[0].text
    if name in sh.functions:
        return
    if name in WRAPPERS:
        program_word(path, words[0])
        rest = words[1:]
        if name == "command" and rest and rest[0].text in ("-v", "-V"):
            for w in rest[1:]:
                program_word(path, w, "command -v")
            return
        takes_value, operands = WRAPPERS[name]
        while rest and (rest[0].text.startswith("-") or (name == "env" and "=" in rest[0].text)):
            rest = rest[2:] if rest[0].text in takes_value else rest[1:]
        if rest[operands:]:
            take_command(sh, path, rest[operands:])
        return
    if name in ("trap", "eval"):
        if len(words) > 1 and not words[1].dynamic and words[1].text != "-":
            sh.nested(words[1].text, words[1].line)
        return
    program_word(path, words[0])
    base = os.path.basename(name)
    if base in ("bash", "sh") and len(words) > 2 and words[1].text == "-c" and not words[2].dynamic:
        sh.nested(words[2].text, words[2].line)
    if re.fullmatch(r"python3(\.\d+)?", base):
        for opt, code in zip(words[1:], words[2:]):
            if opt.text == "-c" and not code.dynamic:
                python_snippets.append((path, code.line, code.text))
    # bash scripts/deps.sh EXTRA...: what this script installs besides the list
    args = words[1:] if base in ("bash", "sh") else words
    if args and os.path.basename(args[0].text) == "deps.sh":
        for w in args[1:]:
            array = re.fullmatch(r'"?\$\{(\w+)\[[@*]\]\}"?', w.raw)
            if array:
                items = sh.arrays.get(array.group(1), [])
            elif w.raw in ('"$@"', "$@", '"$*"', "$*"):
                items = []
            else:
                items = [w]
            for item in items:
                extras.setdefault(rel(path), set()).add(item.text.replace("\0", "*"))


for path in sh_files:
    with open(path, encoding="utf-8", errors="replace") as f:
        sh = Shell(f.read())
    if shebang(path):
        need("program", shebang(path), path, 1, "#!")
    taken = 0
    while taken < len(sh.commands):  # trap and bash -c strings add commands as they go
        take_command(sh, path, sh.commands[taken])
        taken += 1

# --- Python ---------------------------------------------------------------------------------
local_modules = set()
for path in py_files:
    stem = os.path.splitext(os.path.basename(path))[0]
    local_modules.add(os.path.basename(os.path.dirname(path)) if stem == "__init__" else stem)

imports = []  # (file, line, top-level module, the import statement)
RUNNERS = {"run", "Popen", "call", "check_call", "check_output", "create_subprocess_exec"}
SHELL_RUNNERS = {"system", "popen", "getoutput", "getstatusoutput", "create_subprocess_shell"}
EXECS = {"execv", "execvp", "execvpe", "execl", "execlp", "execlpe", "posix_spawn",
         "posix_spawnp"}
SPAWNS = {"spawnl", "spawnlp", "spawnv", "spawnvp", "spawnve", "spawnvpe", "spawnle", "spawnlpe"}


def first_word(line):
    m = re.match(r"\s*(?:[A-Za-z_][A-Za-z0-9_]*=\S*\s+)*([^\s;&|<>()]+)", line)
    return m.group(1) if m else None


def short(statement):
    if len(statement) > 60:
        statement = statement[:statement.index(" import ") + 8] + "..."
    return f"`{statement}`"


def scan_python(path, source, line0=0):
    try:
        tree = ast.parse(source)
    except SyntaxError as e:
        print(f"check-deps: {rel(path)}:{line0 + (e.lineno or 0)}: not Python: {e.msg}")
        return
    parents = {child: node for node in ast.walk(tree) for child in ast.iter_child_nodes(node)}

    def list_named(name, at):
        """The list or tuple literal assigned to name in the function around `at`."""
        while at in parents and not isinstance(at, (ast.FunctionDef, ast.AsyncFunctionDef)):
            at = parents[at]
        for node in ast.walk(at):
            if isinstance(node, ast.Assign) and isinstance(node.value, (ast.List, ast.Tuple)) \
                    and any(isinstance(t, ast.Name) and t.id == name for t in node.targets):
                return node.value
        return None

    def text(node):
        return node.value if isinstance(node, ast.Constant) and isinstance(node.value, str) else None

    for node in ast.walk(tree):
        line = line0 + getattr(node, "lineno", 0)
        if isinstance(node, ast.Import):
            for alias in node.names:
                if alias.name.split(".")[0] not in local_modules:
                    imports.append((path, line, alias.name.split(".")[0], f"import {alias.name}"))
        elif isinstance(node, ast.ImportFrom) and node.level == 0 and node.module:
            if node.module.split(".")[0] not in local_modules:
                imports.append((path, line, node.module.split(".")[0], ast.unparse(node)))
        elif isinstance(node, ast.Call) and node.args:
            f = node.func
            fname = f.attr if isinstance(f, ast.Attribute) else getattr(f, "id", "")
            first = node.args[0]
            if fname in ("import_module", "__import__") and text(first):
                if text(first).split(".")[0] not in local_modules:
                    imports.append((path, line, text(first).split(".")[0], f"import {text(first)}"))
            elif fname == "which" and text(first):
                need("program", text(first), path, line, "shutil.which")
            elif fname in EXECS | SPAWNS:
                arg = node.args[1] if fname in SPAWNS and len(node.args) > 1 else first
                if text(arg):
                    need("program", text(arg), path, line, fname)
            elif fname in RUNNERS | SHELL_RUNNERS:
                shell = fname in SHELL_RUNNERS or any(
                    k.arg == "shell" and isinstance(k.value, ast.Constant) and k.value.value
                    for k in node.keywords)
                arg = first
                if isinstance(arg, ast.Name):
                    arg = list_named(arg.id, node) or arg
                if isinstance(arg, (ast.List, ast.Tuple)) and arg.elts:
                    arg = arg.elts[0]
                if isinstance(arg, ast.Attribute) and arg.attr == "executable" and \
                        getattr(arg.value, "id", "") == "sys":
                    need("program", PYTHON, path, line, "sys.executable")
                elif text(arg):
                    prog = first_word(text(arg)) if shell else text(arg)
                    if prog and ("/" not in prog or prog.startswith("/")):
                        need("program", prog, path, line, f"subprocess.{fname}")


for path in py_files:
    with open(path, encoding="utf-8", errors="replace") as f:
        scan_python(path, f.read())
    if shebang(path):
        need("program", shebang(path), path, 1, "#!")
for path, line, source in python_snippets:
    scan_python(path, source, line - 1)

# --- CMake and C++ --------------------------------------------------------------------------
cmake_texts = {}
for path in cmake_files:
    with open(path, encoding="utf-8", errors="replace") as f:
        cmake_texts[path] = re.sub(r"#[^\n]*", "", f.read())
targets = set()
for text in cmake_texts.values():
    targets |= set(re.findall(r"\badd_executable\s*\(\s*([A-Za-z0-9_.+-]+)", text))
for path, text in cmake_texts.items():
    for m in re.finditer(r"\bCOMMAND\s+\"?([^\s\")]+)", text):
        if "${" not in m.group(1) and "$<" not in m.group(1) and m.group(1) not in targets:
            need("program", m.group(1), path, text.count("\n", 0, m.start()) + 1, "COMMAND")
    for m in re.finditer(r"\bfind_program\s*\(\s*\S+\s+(?:NAMES\s+)?([^\s)]+)", text):
        if "${" not in m.group(1):
            need("program", m.group(1), path, text.count("\n", 0, m.start()) + 1, "find_program")


def call_args(text, i):
    """The top-level arguments of the call whose ( is at i."""
    args, depth, j, begin = [], 0, i, i + 1
    while j < len(text):
        c = text[j]
        if c == '"':
            j += 1
            while j < len(text) and text[j] != '"':
                j += 2 if text[j] == "\\" else 1
        elif c in "([{":
            depth += 1
        elif c in ")]}":
            depth -= 1
            if depth == 0:
                args.append(text[begin:j].strip())
                return args
        elif c == "," and depth == 1:
            args.append(text[begin:j].strip())
            begin = j + 1
        j += 1
    return args


# (the argument naming the program, whether it is a shell line)
CXX_RUNNERS = {"execlp": (0, False), "execvp": (0, False), "execvpe": (0, False),
               "execl": (0, False), "execv": (0, False), "execve": (0, False),
               "posix_spawnp": (1, False), "posix_spawn": (1, False), "popen": (0, True),
               "system": (0, True)}
for path in cxx_files:
    with open(path, encoding="utf-8", errors="replace") as f:
        text = f.read()
    for m in re.finditer(r"\b(" + "|".join(CXX_RUNNERS) + r")\s*\(", text):
        index, shell = CXX_RUNNERS[m.group(1)]
        args = call_args(text, m.end() - 1)
        if len(args) <= index:
            continue
        expr = args[index]
        var = re.fullmatch(r"(\w+)\.c_str\(\)", expr)
        if var:  # a string built just before: where it was last given a value
            given = [a for a in re.finditer(r"\b" + var.group(1) + r"\s*=\s*([^;]*);", text)
                     if a.start() < m.start()]
            expr = given[-1].group(1) if given else ""
        literal = re.match(r"\s*(?:(?:std::string|tk_string)\s*\(\s*)?\"([^\"]*)\"", expr)
        if literal:
            prog = first_word(literal.group(1)) if shell else literal.group(1)
            if prog and ("/" not in prog or prog.startswith("/")):
                need("program", prog, path, text.count("\n", 0, m.start()) + 1, m.group(1))

for path, name, how in UNDERIVABLE:
    need("program", name, os.path.join(ROOT, path), 0, how)

# --- Python modules: where each is, and what it loads -------------------------------------
PROBE = r"""
import importlib.util, json, sys, sysconfig, traceback
stdlib = [sysconfig.get_paths()["stdlib"], sysconfig.get_paths()["platstdlib"]]
def standard(name, file):
    top = name.split(".")[0]
    if top in sys.stdlib_module_names or top in sys.builtin_module_names:
        return True
    return bool(file) and "-packages/" not in file and any(file.startswith(d + "/") for d in stdlib)
mode, arg = sys.argv[1], sys.argv[2]
if mode == "find":
    out = {}
    for name in json.loads(arg):
        try:
            spec = importlib.util.find_spec(name)
        except Exception as e:
            out[name] = {"error": f"{type(e).__name__}: {e}"}
            continue
        if spec is None:
            out[name] = {"missing": True}
            continue
        file = spec.origin if spec.origin not in (None, "built-in", "frozen") else None
        if file is None and spec.submodule_search_locations:
            file = list(spec.submodule_search_locations)[0]
        out[name] = {"file": file, "std": standard(name, file)}
    print(json.dumps(out))
else:
    before = set(sys.modules)
    result = {"loaded": {}}
    try:
        exec(arg, {})
    except ImportError as e:
        frames = [f.filename for f in traceback.extract_tb(e.__traceback__)
                  if not f.filename.startswith("<")]
        result["error"] = {"module": e.name, "message": str(e), "by": frames[-1] if frames else None}
    except Exception as e:
        result["error"] = {"module": None, "message": f"{type(e).__name__}: {e}", "by": None}
    for name in sorted(set(sys.modules) - before):
        file = getattr(sys.modules[name], "__file__", None)
        if file and not standard(name, file):
            result["loaded"][name] = file
    print(json.dumps(result))
"""


def probe(mode, arg):
    return subprocess.Popen([PYTHON, "-I", "-c", PROBE, mode, arg], cwd="/",
                            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)


def probe_result(proc):
    out = proc.communicate()[0]
    try:
        return json.loads(out)
    except ValueError:
        return None


found = probe_result(probe("find", json.dumps(sorted({i[2] for i in imports})))) or {}
module_files = {}  # module -> its file (no entry: not installed)
statements = {}    # third-party import statement -> where it is: (file, line)...
for path, line, top, statement in imports:
    info = found.get(top, {"missing": True})
    if info.get("std"):
        continue
    need("module", top, path, line, short(statement))
    if info.get("file"):
        module_files[top] = info["file"]
        statements.setdefault(statement, []).append((path, line))

# Each statement in an interpreter of its own, two at a time.
import_errors = []
pending = sorted(statements)
while pending:
    batch, pending = pending[:2], pending[2:]
    for statement, proc in [(s, probe("import", s)) for s in batch]:
        result = probe_result(proc) or {"loaded": {}, "error": {
            "module": None, "message": "the interpreter failed", "by": None}}
        own = statement.split()[1].split(".")[0]
        loaded = {}
        for name, file in result["loaded"].items():
            top = name.split(".")[0]
            if top != own and top not in local_modules:
                loaded.setdefault(top, result["loaded"].get(top, file))
        error = result.get("error")
        for path, line in statements[statement]:
            for top, file in sorted(loaded.items()):
                module_files.setdefault(top, file)
                need("module", top, path, line, f"loaded by {short(statement)}")
            if error and error["module"] and error["module"].split(".")[0] not in local_modules:
                need("module", error["module"].split(".")[0], path, line,
                     f"imported by {error['by'] or '?'}, which {short(statement)} loads")
            elif error:
                import_errors.append(f"{rel(path)}:{line}: {short(statement)} fails:"
                                     f" {error['message']}")

# --- programs: where each is -------------------------------------------------------------
program_files = {}  # program -> its candidate files on Debian's PATH (none: not installed)
for name in needs["program"]:
    if name.startswith("/"):
        program_files[name] = [name] if os.path.exists(name) else []
    else:
        program_files[name] = [os.path.join(d, name) for d in SYSTEM_PATH
                               if os.access(os.path.join(d, name), os.X_OK)
                               and os.path.isfile(os.path.join(d, name))]


def twins(path):
    """The path, its twin across the merged /usr, and the same for where its links lead."""
    out = []
    for p in (path, os.path.realpath(path)):
        for q in (p, p[4:] if p.startswith("/usr/") else "/usr" + p):
            if q not in out:
                out.append(q)
    return out


every_file = {t for files in program_files.values() for f in files for t in twins(f)}
every_file |= {t for f in module_files.values() for t in twins(f)}
owners = {}
if every_file:
    out = subprocess.run(["dpkg-query", "-S", *sorted(every_file)], capture_output=True,
                         text=True).stdout
    for line in out.splitlines():
        if not line.startswith("diversion ") and ": " in line:
            packages, path = line.split(": ", 1)
            owners[path] = {p.strip().split(":")[0] for p in packages.split(",")}


def owner(files):
    """The packages of the first of the files that one owns, and that file."""
    for f in files:
        for t in twins(f):
            if t in owners:
                return owners[t], f
    return None, files[0]


# --- what apt installs along with the list -------------------------------------------------
with open(LIST, encoding="utf-8") as f:
    listed = [w.text for w in Shell(f.read()).arrays.get("packages", []) if not w.dynamic]
if not listed:
    sys.exit(f"check-deps: no packages=(...) list in {LIST}")
installed, core = set(), set()
out = subprocess.run(["dpkg-query", "-W", "-f",
                      "${Package}\t${db:Status-Abbrev}\t${Essential}\t${Priority}\n"],
                     capture_output=True, text=True).stdout
for line in out.splitlines():
    package, state, essential, priority = (line.split("\t") + ["", "", ""])[:4]
    if state.startswith("ii"):
        installed.add(package)
        if essential == "yes" or priority == "required":
            core.add(package)

depends = {}  # package -> the packages its Depends and Pre-Depends bring


def load_depends(packages):
    """Every package that the packages may bring, with what each one brings here."""
    out = subprocess.run(["apt-cache", "depends", "--recurse", "--no-recommends", "--no-suggests",
                          "--no-conflicts", "--no-breaks", "--no-replaces", "--no-enhances",
                          *packages], capture_output=True, text=True).stdout
    current, group, closed = None, [], True

    def settle():
        # a | b: the alternative installed here, else the first, as apt picks it
        nonlocal group
        names = [n for alternative in group for n in alternative]
        chosen = [n for n in names if n in installed][:1] or names[:1]
        if current is not None:
            depends[current].extend(chosen)
        group = []

    for line in out.splitlines():
        m = re.match(r"\s*(\|?)(?:Depends|PreDepends): (\S+)", line)
        if not line.startswith(" "):
            settle()
            current = line.strip()
            depends.setdefault(current, [])
        elif m:
            if closed:
                settle()
            name = m.group(2)
            group.append([] if name.startswith("<") else [name.split(":")[0]])
            closed = not m.group(1)
        elif line.startswith("    ") and group:  # the providers of a virtual package
            group[-1].append(line.strip().split(":")[0])
    settle()


def closure(roots):
    seen, frontier = set(), set(roots)
    while frontier:
        seen |= frontier
        frontier = {d for p in frontier for d in depends.get(p, [])} - seen
    return seen


def expand(names):
    out = set()
    for n in names:
        out |= {p for p in installed if fnmatch.fnmatchcase(p, n)} if "*" in n else {n}
    return out


# The graph apt-cache gives follows every alternative; closure() follows the chosen ones.
load_depends(sorted(expand(listed) | expand({e for x in extras.values() for e in x})))
closures = {}


def covered(path):
    key = tuple(sorted(extras.get(path, ())))
    if key not in closures:
        closures[key] = closure(expand(listed) | expand(key))
    return closures[key]


# --- the verdict -----------------------------------------------------------------------------
def uses_text(uses):
    path, line, how = uses[0]
    text = f"{path}:{line}" if line else path
    text += f" ({how})" if how else ""
    return text + (f" and {len(uses) - 1} more" if len(uses) > 1 else "")


missing = {}    # package -> what needs it
absent = []     # needed, not installed, and nothing that the list installs provides it
unchecked = {}  # script -> its extra packages not all installed here, and its needs not found
for kind in ("module", "program"):
    for name in sorted(needs[kind]):
        files = [module_files[name]] if name in module_files else program_files.get(name, [])
        by_script, lost, seen = {}, [], set()
        for use in needs[kind][name]:
            by_script.setdefault(use[0], []).append(use)
        for path, uses in sorted(by_script.items()):
            if not files:
                pending = sorted(e for e in extras.get(path, ()) if "*" in e or e not in installed)
                if pending:
                    unchecked.setdefault(path, (pending, []))[1].append(name)
                else:
                    lost += uses
                continue
            packages, file = owner(files)
            if packages is None:
                absent.append(f"{kind} {name} is {file}, which no Debian package installs:"
                              f" {uses_text(uses)}")
                continue
            seen |= packages
            if not packages & (covered(path) | core):
                missing.setdefault(min(packages), {}).setdefault(f"{kind} {name}", []).extend(uses)
                seen.add("NOT COVERED")
        if lost:
            absent.append(f"{kind} {name} is not installed, and nothing {LIST} installs provides"
                          f" it: {uses_text(lost)}")
        if VERBOSE:
            where = owner(files)[1] if files else "not installed"
            print(f"  {kind} {name}: {where}: {' '.join(sorted(seen)) or '-'}; used in"
                  f" {', '.join(sorted(by_script))}")

for path, (pending, names) in sorted(unchecked.items()):
    print(f"check-deps: not checked, as {', '.join(pending)} from {path} are not all installed"
          f" here: {', '.join(names)}")
for text in import_errors:
    print(f"check-deps: {text}")
for package, users in sorted(missing.items()):
    texts = []
    for what, uses in users.items():
        how = f" ({uses[0][2]})" if uses[0][2] else ""
        texts.append(f"{what}{how} in " + ", ".join(f"{p}:{n}" if n else p for p, n, _ in uses))
    print(f"check-deps: {package} is missing from {LIST}: " + "; ".join(texts))
for text in absent:
    print(f"check-deps: missing: {text}")
if missing or absent or import_errors:
    sys.exit(1)
count = len(py_files) + len(sh_files) + len(cmake_files) + len(cxx_files)
print(f"check-deps: {LIST} covers the {len(needs['module'])} Python modules and"
      f" {len(needs['program'])} programs that {count} files use"
      f"{f' ({sum(len(n) for _, n in unchecked.values())} not checked)' if unchecked else ''},"
      f" in {time.monotonic() - started:.1f} s")
PY
