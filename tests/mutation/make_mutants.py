#!/usr/bin/python3
"""Writes a copy of the sources in which every small change to the manager stands behind a number.

  make_mutants.py SOURCES COPY BUILD      BUILD: default or guarded

In the copy a comparison reads (VM(17) ? ((a) <= (b)) : (a < b)): one program holds all mutants, and a run chooses one of them. COPY
gets mutants.json: a list of number, key and place. A key is made of the file, the function, the line's text and the change, so that
a line that moves keeps it.

What is changed: comparisons (the boundary moved, the sense turned), logical and arithmetic operators, increments, constants (one more;
1 also becomes 0), conditions that are no comparison (negated), statements (left out): calls, assignments, break, continue, return
from a function without a result. Of the guarded build the files of kernel/mm/guard/, and in the core each MM_GUARD left out.

Not changed: what a compiler evaluates (tables, layouts, constants where they are defined; their uses are), texts of messages, and
MMP_Touch, which a kernel does not have.
"""
import json
import pathlib
import re
import sys

import clang.cindex
from clang.cindex import CursorKind as Kind, TypeKind

FOLDERS = ("controller", "host", "include", "kernel", "lib", "tests")
SUFFIXES = (".h", ".hpp", ".c", ".cpp", ".txt", ".cmake", ".in", ".answers", ".json")

COMPARISONS = {"<": ("<=", ">="), "<=": ("<", ">"), ">": (">=", "<="), ">=": (">", "<"), "==": ("!=",), "!=": ("==",)}
OPERATORS = {"&&": "||", "||": "&&", "+": "-", "-": "+", "*": "/", "/": "*", "%": "/", "<<": ">>", ">>": "<<", "&": "|",
             "|": "&", "^": "|"}
ASSIGNMENTS = {"+=": "-=", "-=": "+=", "*=": "/=", "/=": "*=", "|=": "&=", "&=": "|=", "^=": "|=", "<<=": ">>=", ">>=": "<<="}
# An announcement for the simulated machine, and entries without a body in this build.
NO_EFFECT = {"MMP_Touch", "MM_TouchField", "MM_CheckRunIndex", "CM_ShowDEFMCT", "CM_ShowMCT"}
FUNCTIONS = {Kind.FUNCTION_DECL, Kind.CXX_METHOD, Kind.CONSTRUCTOR, Kind.DESTRUCTOR, Kind.FUNCTION_TEMPLATE}
IGNORED = {Kind.STATIC_ASSERT, Kind.ENUM_DECL, Kind.FIELD_DECL, Kind.PARM_DECL, Kind.CXX_UNARY_EXPR, Kind.TYPE_REF,
           Kind.TEMPLATE_TYPE_PARAMETER, Kind.TEMPLATE_NON_TYPE_PARAMETER, Kind.STRING_LITERAL}
CONSTANT = re.compile(r"(?:\w+::)*[A-Z][A-Z0-9_]+")


def write(path, text):
    """Writes what has changed, so that what has not is not built again."""
    if path.exists() and path.read_text(encoding="utf-8") == text:
        return
    path.parent.mkdir(parents=True, exist_ok=True)
    path.write_text(text, encoding="utf-8")


# Checks are macros that print their condition: each is written out, its text kept, so that the condition can be changed.

def closing(text, start):
    """The place of the parenthesis that closes the one at start, and the places of the commas between its arguments."""
    depth, commas, quote, at = 0, [], None, start
    while True:
        char = text[at]
        if quote:
            if char == "\\":
                at += 1
            elif char == quote:
                quote = None
        elif char in "\"'":
            quote = char
        elif char in "([{":
            depth += 1
        elif char in ")]}":
            depth -= 1
            if depth == 0:
                return at, commas
        elif char == "," and depth == 1:
            commas.append(at)
        at += 1


def stringized(text):
    """As the preprocessor's # writes it."""
    text = " ".join(text.split())
    return '"' + re.sub(r'"(?:\\.|[^"\\])*"', lambda s: s.group().replace("\\", "\\\\").replace('"', '\\"'), text) + '"'


def written_out(text, guarded):
    """Checks as plain statements, on as many lines as before; the guarded build's rules go where they are none."""
    for match in reversed([] if guarded else list(re.finditer(r"^ +(MM_GUARD)\(", text, flags=re.M))):
        end, _ = closing(text, match.end() - 1)
        text = text[:match.start(1)] + "\n" * text.count("\n", match.start(), end) + text[end + 1:]
    for match in reversed(list(re.finditer(r"^ +(MM_RETURN_RELEASED)\(", text, flags=re.M))):
        end, _ = closing(text, match.end() - 1)
        body = f"do {{ const U32 ulResult = {text[match.end() - 1:end + 1]}; return MM_Guarded ? ulResult : U32(ENOERR); }} while (0)"
        text = text[:match.start(1)] + body + text[end + 1:]
    for match in reversed(list(re.finditer(r"\b(MM_ASSERT(?:_FOR|_MESSAGE|_SILENT)?)\(", text))):
        start = match.start()
        end, commas = closing(text, match.end() - 1)
        bounds = [match.end() - 1] + commas + [end]
        parts = [" ".join(re.sub(r"/\*.*?\*/", " ", text[left + 1:right]).split()) for left, right in zip(bounds, bounds[1:])]
        place = "MM_SourcePath(__FILE__), __func__, __LINE__"
        kind = match.group(1)
        if kind == "MM_ASSERT_FOR":
            function, condition, *value = parts
            report = f"MM_ReportAssertion({stringized(condition)}, MM_SourcePath(__FILE__), {function}, __LINE__)"
        elif kind == "MM_ASSERT_MESSAGE":
            condition, message, *value = parts
            report = f"MM_ReportMessage({message}, {place})"
        elif kind == "MM_ASSERT_SILENT":
            condition, *value = parts
            report = f"MM_ReportPlace({place})"
        else:
            condition, *value = parts
            report = f"MM_ReportAssertion({stringized(condition)}, {place})"
        lines = "\n" * text.count("\n", start, end)
        body = f"do {{ if (!({condition})) {{ {report}; return {', '.join(value)}; }} }} while (0)"
        text = text[:start] + lines + body + text[end + 1:]
    return text


class Site:
    """A stretch of a file that can be written otherwise."""

    def __init__(self, start, end, function, guard):
        self.start, self.end, self.function, self.guard = start, end, function, guard
        self.changes = []  # (what stands there instead, or None to leave the statement out; how the change reads)


class Unit:
    """One source file."""

    def __init__(self, path, text, original, guarded):
        self.name, self.text, self.original, self.guarded = path.name, text, original.splitlines(), guarded
        self.sites = {}

    def site(self, node, function):
        place = (node.extent.start.offset, node.extent.end.offset)
        return self.sites.setdefault(place, Site(*place, function.name, function.guard))

    def of(self, node):
        return self.text[node.extent.start.offset:node.extent.end.offset]

    # The walk ------------------------------------------------------------------------------------------

    def visit(self, node, function):
        kind = node.kind
        if kind in IGNORED or kind.is_attribute():
            return
        children = list(node.get_children())
        if kind in FUNCTIONS:
            if not node.is_definition():
                return
            function = Function(self, node, children)
        elif kind == Kind.VAR_DECL:
            return self.variable(node, children, function)
        elif kind == Kind.CASE_STMT:
            children = children[1:]
        elif kind == Kind.DO_STMT and self.of(children[1]) == "0":  # a check, written out
            return self.visit(children[0], function)
        elif kind == Kind.IF_STMT and self.of(node).startswith("if constexpr"):
            keep = 1 if self.guarded else 2
            for child in children[keep:keep + 1]:
                self.visit(child, function)
            return
        elif kind == Kind.CALL_EXPR and node.spelling in NO_EFFECT:
            return
        if function is not None:
            self.change(node, children, function)
        for child in children:
            self.visit(child, function)

    def variable(self, node, children, function):
        line = self.text.rfind("\n", 0, node.location.offset)
        before = self.text[max(line, self.text.rfind(";", 0, node.location.offset)):node.location.offset]
        if function is None or re.search(r"\b(constexpr|static|extern)\b", before):
            return
        for child in children:
            lead = self.text[node.location.offset:child.extent.start.offset]
            if child.extent.start.offset > node.location.offset and not lead.rstrip().endswith("["):
                self.visit(child, function)

    def change(self, node, children, function):
        kind = node.kind
        if kind == Kind.BINARY_OPERATOR or kind == Kind.COMPOUND_ASSIGNMENT_OPERATOR:
            self.operator(node, children, function)
        elif kind == Kind.UNARY_OPERATOR:
            self.unary(node, children, function)
        elif kind in (Kind.INTEGER_LITERAL, Kind.CHARACTER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR):
            self.literal(node, function)
        elif kind in (Kind.DECL_REF_EXPR, Kind.MEMBER_REF_EXPR):
            self.constant(node, function)
        if kind in (Kind.IF_STMT, Kind.WHILE_STMT, Kind.CONDITIONAL_OPERATOR):
            self.condition(children[0], function)
        elif kind == Kind.FOR_STMT:
            for child in children[:-1]:
                if child.type.kind == TypeKind.BOOL:
                    self.condition(child, function)
        for child in self.statements(node, children):
            self.statement(child, function)

    @staticmethod
    def statements(node, children):
        if node.kind in (Kind.COMPOUND_STMT, Kind.CASE_STMT, Kind.DEFAULT_STMT):
            return children
        if node.kind == Kind.IF_STMT:
            return children[1:]
        if node.kind in (Kind.FOR_STMT, Kind.WHILE_STMT, Kind.CXX_FOR_RANGE_STMT):
            return children[-1:]
        return []

    # What can be changed -------------------------------------------------------------------------------

    def add(self, node, function, text, reading=None):
        if self.of(node).strip() not in ("", "MM_Guarded", "!MM_Guarded"):
            reading = reading or f"{short(self.of(node))} => {short(text)}"
            self.site(node, function).changes.append((text, reading))

    def sides(self, children):
        if len(children) != 2:
            return None
        left, right = children
        between = self.text[left.extent.end.offset:right.extent.start.offset]
        between = re.sub(r"/\*.*?\*/", "", between, flags=re.S).strip()
        return left, between, right

    def operator(self, node, children, function):
        sides = self.sides(children)
        if sides is None:
            return
        left, sign, right = sides
        pointers = [side.type.get_canonical().kind == TypeKind.POINTER for side in (left, right)]
        news = COMPARISONS.get(sign) or tuple(filter(None, (OPERATORS.get(sign) or ASSIGNMENTS.get(sign),)))
        if (sign == "-" and all(pointers)) or (sign == "+" and pointers[1]) or self.of(left) == "!MM_Guarded":
            return
        for new in news:
            near, far = short(self.of(left), 34), short(self.of(right), 34)
            self.add(node, function, f"(({self.of(left)}) {new} ({self.of(right)}))", f"{near} {sign} {far} => {new}")
        if sign in ("<", "<=", ">", ">="):
            self.limits = {**getattr(self, "limits", {}), right.extent.start.offset: sign}

    def unary(self, node, children, function):
        text = self.of(node)
        for sign, new in (("++", "--"), ("--", "++")):
            if text.startswith(sign):
                return self.add(node, function, f"({new}{text[2:]})")
            if text.endswith(sign):
                return self.add(node, function, f"({text[:-2]}{new})")
        if text[:1] in ("!", "-", "~"):
            inner = self.of(children[0])
            self.add(node, function, f"bool({inner})" if text[0] == "!" else f"({inner})", f"{short(text)} => without {text[0]}")

    def literal(self, node, function):
        text = self.of(node)
        if text in ("true", "false"):
            return self.add(node, function, "true" if text == "false" else "false")
        if text.startswith("__") or "(" in text or node.type.kind == TypeKind.POINTER:
            return
        if text == "1":
            self.add(node, function, "0")
        self.step(node, function, text)

    def constant(self, node, function):
        text = self.of(node)
        if not CONSTANT.fullmatch(text) or node.type.kind in (TypeKind.POINTER, TypeKind.RECORD):
            return
        if node.type.get_canonical().kind == TypeKind.ENUM:
            self.add(node, function, f"static_cast<decltype({text})>({text} + 1)", f"{text} => {text} + 1")
        else:
            self.step(node, function, text)

    def step(self, node, function, text):
        """One more; one less where one more is what the moved boundary does already."""
        sign = "-" if getattr(self, "limits", {}).get(node.extent.start.offset) in ("<", ">=") else "+"
        if text != "0" or sign == "+":
            self.add(node, function, f"({text} {sign} 1)", f"{text} => {text} {sign} 1")

    def condition(self, node, function):
        while node.kind == Kind.UNEXPOSED_EXPR or node.kind == Kind.PAREN_EXPR:
            inner = list(node.get_children())
            if len(inner) != 1:
                break
            node = inner[0]
        if node.kind in (Kind.BINARY_OPERATOR, Kind.UNARY_OPERATOR, Kind.INTEGER_LITERAL, Kind.CXX_BOOL_LITERAL_EXPR):
            sides = self.sides(list(node.get_children())) if node.kind == Kind.BINARY_OPERATOR else None
            if sides is None or sides[1] in COMPARISONS or sides[1] in ("&&", "||"):
                return
        if node.kind.is_expression():
            self.add(node, function, f"(!({self.of(node)}))", f"{short(self.of(node))} => negated")

    def statement(self, node, function):
        inner = node
        while inner.kind == Kind.UNEXPOSED_EXPR and len(list(inner.get_children())) == 1:
            inner = next(inner.get_children())
        children = list(inner.get_children())
        droppable = inner.kind in (Kind.BREAK_STMT, Kind.CONTINUE_STMT, Kind.COMPOUND_ASSIGNMENT_OPERATOR)
        if inner.kind == Kind.CALL_EXPR:
            droppable = inner.spelling not in NO_EFFECT
        elif inner.kind == Kind.BINARY_OPERATOR:
            sides = self.sides(children)
            droppable = sides is not None and sides[1] == "="
        elif inner.kind == Kind.UNARY_OPERATOR:
            droppable = self.of(inner)[:2] in ("++", "--") or self.of(inner)[-2:] in ("++", "--")
        elif inner.kind == Kind.RETURN_STMT:
            droppable = function.void
        rest = self.text[node.extent.end.offset:node.extent.end.offset + 1]
        if not droppable or rest != ";" or self.of(node).startswith("__builtin_trap"):
            return
        place = (node.extent.start.offset, node.extent.end.offset + 1)
        site = self.sites.setdefault(place, Site(*place, function.name, function.guard))
        site.changes.append((None, f"{short(self.of(node))} => left out"))

    # The copy ------------------------------------------------------------------------------------------

    def key(self, site, change):
        line = self.text.count("\n", 0, site.start)
        context = re.sub(r"\s*/\*.*?(\*/|$)", "", self.original[line]).strip()
        if len(context) < 12 and line > 0:  # the end of a check
            context = re.sub(r"\s*/\*.*?(\*/|$)", "", self.original[line - 1]).strip() + " " + context
        return line + 1, f"{self.name} {site.function} | {short(context, 100)} | {change}"

    def copy(self, numbers):
        order = sorted(self.sites.values(), key=lambda site: (site.start, -site.end))
        for site in order:
            site.numbers = []
            for _, reading in site.changes:
                line, key = self.key(site, reading)
                site.numbers.append(numbers.take(key, f"{self.name}:{line}"))
        text, at = self.rendered(order, 0, 0, len(self.text))
        assert at == len(order)
        return text

    def rendered(self, order, at, start, end):
        """The text from start to end with the sites from at on that lie in it; the next site."""
        parts = []
        while at < len(order) and order[at].start < end:
            site = order[at]
            assert site.end <= end, f"{self.name}: changes overlap at {self.text[site.start:site.end]}"
            parts.append(self.text[start:site.start])
            inner, at = self.rendered(order, at + 1, site.start, site.end)
            parts.append(self.with_changes(site, inner))
            start = site.end
        parts.append(self.text[start:end])
        return "".join(parts), at

    @staticmethod
    def with_changes(site, inner):
        text = inner
        for (change, _), number in zip(site.changes, site.numbers):
            if change is None:
                text = f"{{ if (!{site.guard}({number})) {text} }}"
            else:
                text = f"({site.guard}({number}) ? {' '.join(change.split())} : {text})"
        return text


class Function:
    def __init__(self, unit, node, children):
        owner = node.semantic_parent
        inside = owner is not None and owner.kind in (Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE)
        name = re.sub(r"<.*", "", node.spelling)
        self.name = f"{owner.spelling}::{name}" if inside else name
        self.void = node.result_type.kind == TypeKind.VOID
        body = next((child for child in children if child.kind == Kind.COMPOUND_STMT), node)
        head = unit.text[node.extent.start.offset:body.extent.start.offset]
        self.guard = "VMC" if re.search(r"\bconstexpr\b", head) else "VM"


class Numbers:
    def __init__(self):
        self.mutants, self.seen = [], {}

    def take(self, key, place):
        self.seen[key] = self.seen.get(key, 0) + 1
        if self.seen[key] > 1:
            key += f" #{self.seen[key]}"
        self.mutants.append({"number": len(self.mutants) + 1, "key": key, "place": place})
        return len(self.mutants)


def short(text, most=70):
    text = " ".join(text.split())
    return text if len(text) <= most else f"{text[:most - 35]} ... {text[-30:]}"


def without_guards(unit, text, numbers):
    """Of the core in the guarded build: each MM_GUARD can be left out."""
    function, out, at = "?", [], 0
    for match in re.finditer(r"^[\w*<>: ]*?\b(\w+)\([^;]*?\)\n\{|^ +(MM_GUARD)\(", text, flags=re.M):
        if match.group(1):
            function = match.group(1)
            continue
        start = match.start(2)
        end, _ = closing(text, match.end() - 1)
        line = text.count("\n", 0, start)
        key = f"{unit.name} {function} | {short(text[start:end + 1], 100)} | left out"
        number = numbers.take(key, f"{unit.name}:{line + 1}")
        out.append(text[at:start] + f"if (!VM({number})) ")
        at = start
    return "".join(out) + text[at:]


def copied(source, target):
    for folder in FOLDERS:
        for path in sorted((source / folder).rglob("*")):
            if path.suffix in SUFFIXES and path.is_file() and "kernel/linux" not in str(path):
                yield path, target / path.relative_to(source)


def parsed(path, source, guarded):
    arguments = ["-x", "c++", "-std=c++20", "-m32", f"-I{source}", f"-I{source / 'include'}", "-w", "-ffreestanding",
                 "-DMMP_CHECKED_ACCESS"] + (["-DMM_GUARDED"] if guarded else [])
    unit = clang.cindex.Index.create().parse(str(path), arguments)
    errors = [str(diagnostic) for diagnostic in unit.diagnostics if diagnostic.severity >= 3]
    if errors:
        sys.exit(f"make_mutants.py: {path.name} is not understood: {errors[0]}")
    return unit


def main():
    if len(sys.argv) != 4 or sys.argv[3] not in ("default", "guarded"):
        sys.exit(__doc__.split("\n\n")[1].strip())
    source, target, guarded = pathlib.Path(sys.argv[1]), pathlib.Path(sys.argv[2]), sys.argv[3] == "guarded"
    manager = source / "kernel" / "mm"
    plain = target.parent / "written-out"
    numbers = Numbers()
    mutated = {}
    files = sorted(path for folder in ("guard", "mm", "mmi") for path in (manager / folder).glob("MM_*") if path.suffix in (".h", ".cpp"))
    for path in sorted((source / "include").rglob("*.h")) + [manager / "MM_Platform.h", manager / "mm" / "MM.h"] + files:
        text = path.read_text(encoding="utf-8")
        write(plain / path.relative_to(source), text if path.name == "MM_Assert.h" else written_out(text, guarded))
    for path in files:
        own = (path.parent.name == "guard") == guarded and path.name not in ("MM_Assert.h", "MM_Guard.h")
        relative = path.relative_to(source)
        text = (plain / relative).read_text(encoding="utf-8")
        unit = Unit(path, text, path.read_text(encoding="utf-8"), guarded)
        if own:
            tree = parsed(plain / relative, plain, guarded)
            for node in tree.cursor.get_children():
                if node.location.file and node.location.file.name == str(plain / relative):
                    walk(unit, node)
            mutated[path] = unit.copy(numbers)
        elif guarded and path.name != "MM_Guard.h":
            mutated[path] = without_guards(unit, path.read_text(encoding="utf-8"), numbers)
    for path, place in copied(source, target):
        write(place, mutated.get(path) or path.read_text(encoding="utf-8"))
    (target / "mutants.json").write_text(json.dumps(numbers.mutants, indent=1), encoding="utf-8")


def walk(unit, node):
    """Functions, wherever they stand."""
    if node.kind in FUNCTIONS:
        unit.visit(node, None)
    elif node.kind in (Kind.NAMESPACE, Kind.CLASS_DECL, Kind.STRUCT_DECL, Kind.CLASS_TEMPLATE, Kind.LINKAGE_SPEC, Kind.UNEXPOSED_DECL):
        for child in node.get_children():
            walk(unit, child)


main()
