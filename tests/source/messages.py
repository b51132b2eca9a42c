#!/usr/bin/env python3
"""Every message that the manager prints has an entry in docs/messages.md, and every entry is of a message that a source
prints. Both are brought to one form: "{}" or "{:hex}" for what differs from line to line.

    messages.py ROOT [PAGE]
"""
import collections
import pathlib
import re
import sys

ASSERTIONS = {
    "MM_ASSERT": "Assertion failed! {condition},{{}},{function},line={{}}",
    "MM_ASSERT_FOR": "Assertion failed! {condition},{{}},{function},line={{}}",
    "MM_ASSERT_MESSAGE": "Assertion failed! {message} {{}},{function},line={{}}",
    "MM_ASSERT_SILENT": "Assertion failed! {{}},{function},line={{}}",
}
STRING = r'"(?:[^"\\]|\\.)*"'
# The simulated controller's reports are made of a sentence's beginning and these; scripts have a short form.
REPORT = "the simulated controller stopped: {}"
SHORT_REPORTS = ["= hang", "= oops 0x{:hex}"]
# What is printed for its side effect only: nothing is to be seen.
UNSEEN = {""}

Message = collections.namedtuple("Message", "text function")


def one_space(text):
    return re.sub(r"\s+", " ", text).strip()


# Sources --------------------------------------------------------------------------------------------

def without_comments(source):
    pattern = STRING + r"|'(?:[^'\\]|\\.)+'|//[^\n]*|/\*.*?\*/"
    return re.sub(pattern, lambda found: " " if found[0].startswith("/") else found[0], source, flags=re.S)


def arguments_at(source, start):
    """The arguments of a call whose bracket opens at start, as they are written."""
    found, depth, begin, at = [], 0, start + 1, start
    while True:
        literal = re.compile(STRING + r"|'(?:[^'\\]|\\.)+'").match(source, at)
        if literal:
            at = literal.end()
            continue
        depth += {"(": 1, "{": 1, "[": 1, ")": -1, "}": -1, "]": -1}.get(source[at], 0)
        if depth == 0 or depth == 1 and source[at] == ",":
            found.append(one_space(source[begin:at]))
            begin = at + 1
            if depth == 0:
                return found
        at += 1


def calls(source, name):
    for call in re.finditer(r"\b" + name + r"\(", source):
        line = source[source.rfind("\n", 0, call.start()) + 1:call.start()]
        if not line.startswith(("#define", "void ")):
            yield call.start(), arguments_at(source, call.end() - 1)


def function_at(source, place):
    """The function whose body holds a place: the last definition that begins a line before it."""
    definitions = re.finditer(r"^(?!\s|#|struct|using|constexpr char)[^\n;=]*?(\w+(?:::\w+)?)\([^;{]*\)[^;{}]*\{", source[:place], re.M)
    return [found[1] for found in definitions][-1]


def literal(text):
    """What the literals of an argument say, or None where it is none."""
    parts = re.findall(STRING, text)
    if not parts or re.sub(STRING, "", text).strip() not in ("", "KERN_ERR"):
        return None
    return "".join(parts)[1:-1].replace('""', "").encode().decode("unicode_escape")


def resolved(source, argument):
    """The text of a literal, or of the array of characters that is named."""
    named = re.search(r"constexpr char " + re.escape(argument) + r"\[\] = (" + STRING + ")", source)
    return literal(named[1] if named else argument)


def printed(source, arguments, function):
    """A printf format in the common form."""
    text = resolved(source, arguments[0])
    if text is None:
        sys.exit(f"a format that cannot be read: {arguments[0]}")
    values = iter(arguments[1:])

    def value(conversion):
        if conversion[0] == "%c%c%c%c":
            return "{}"
        argument = next(values, "")
        if conversion[0] != "%s":
            return "{:hex}" if conversion[0][-1] in "xX" else "{}"
        return function if argument == "__func__" else literal(argument) if literal(argument) is not None else "{}"

    return one_space(re.sub(r"%c%c%c%c|%[0-9]*l?[a-zA-Z]", value, text))


def asserted(source):
    for macro, form in ASSERTIONS.items():
        for place, arguments in calls(source, macro):
            functions = [function_at(source, place)]
            if macro == "MM_ASSERT_FOR":
                name = arguments.pop(0)
                helper, functions = functions[0], [literal(name)]
                if functions == [None]: # handed on: the helper's callers name it
                    functions = [literal(call[0]) for _, call in calls(source, helper) if literal(call[0])]
            for function in functions:
                message = literal(arguments[1]) if macro == "MM_ASSERT_MESSAGE" else ""
                yield Message(one_space(form.format(condition=arguments[0], message=message, function=function)), function)


def in_kernel(root):
    for path in sorted([*root.glob("kernel/mm/**/*.cpp"), *root.glob("kernel/mm/**/*.h"), *root.glob("kernel/linux/**/*.[ch]")]):
        source = without_comments(path.read_text())
        if path.name.startswith("MM_Assert."):
            continue # the forms above; MM_Assert's tests hold the two together
        yield from asserted(source)
        for name in ("MMP_Print", "printk", "pr_err", "pr_warn", "pr_info"):
            for place, arguments in calls(source, name):
                if arguments[0].startswith("const char"):
                    continue
                function = function_at(source, place)
                text = printed(source, arguments, function)
                named = re.match(r"(MM_InstallSegment): ", text) # helpers print their entry's name
                if text not in UNSEEN:
                    yield Message(text, named[1] if named else printer(function))


def printer(function):
    """Rows are printed by helpers; they are known by the entries that show them."""
    return {"PrintDisplayRow": "MM_DisplayMST", "PrintTraceRow": "MM_TraceMST", "PrintHeapTraceRow": "MM_TraceMST"}.get(function, function)


def in_machine(root):
    source = without_comments((root / "host/machine.cpp").read_text())
    locks = re.findall(r'"(\w+_lock)"', source)
    describe = source[source.index("std::string Outcome::describe"):]
    describe = describe[:describe.index("\n}\n")]
    for _, arguments in calls(describe, "std::snprintf"):
        form = printed(source, arguments[2:], "")
        for text in [form.replace("{}", lock) for lock in locks] if "waits" in form else [form]:
            yield Message(f"{REPORT} {text}", "Outcome::describe")
    for text in SHORT_REPORTS:
        yield Message(text, "Outcome::describe")


# The page -------------------------------------------------------------------------------------------

ENTRY = re.compile(r"\n### (?P<title>[^\n]+)\n\n(?P<blocks>(?:```(?:text|table)\n(?:[^`\n]*\n)+```\n)+)\n(?P<points>(?:(?:- \*\*|  )[^\n]+\n)+)")


def entries(page):
    found = list(ENTRY.finditer(page))
    for title in re.findall(r"^### (.+)$", page, re.M):
        if title not in {entry["title"] for entry in found}:
            sys.exit(f"not an entry as the page describes them: {title}")
    for entry in found:
        names = re.findall(r"^- \*\*(\w+)\*\* ", entry["points"], re.M)
        if names != ["From", "Means", "State", "Do"]:
            sys.exit(f"not the four points: {entry['title']}")
        functions = re.findall(r"`([^`]+)`", entry["points"].splitlines()[0])
        texts = []
        for kind, block in re.findall(r"```(text|table)\n(.*?)```", entry["blocks"], re.S):
            texts += [block] if kind == "text" else block.splitlines()
        for text in texts:
            form = re.sub(r"\{[a-z ]+(:hex)?\}", lambda found: "{" + (found[1] or "") + "}", one_space(text))
            yield entry["title"], form, functions


def main(root, page=None):
    root = pathlib.Path(root)
    page = pathlib.Path(page or root / "docs/messages.md").read_text()
    messages = set(in_kernel(root)) | set(in_machine(root))
    documented = collections.Counter()
    wrong = []
    for title, text, functions in entries(page):
        documented[text] += 1
        if documented[text] > 1:
            wrong.append(f"stands twice: {text}")
        sources = {message.function for message in messages if message.text == text}
        if not sources:
            wrong.append(f"no source prints this ({title}): {text}")
        elif not sources <= set(functions):
            wrong.append(f"'{title}' is from {', '.join(sorted(sources))}: {text}")
    wrong += [f"no entry for what {message.function} prints: {message.text}"
              for message in sorted(messages) if message.text not in documented]
    if len(messages) < 100:
        wrong.append(f"only {len(messages)} messages were found in the sources")
    print("\n".join(wrong) or f"{len(messages)} messages, each with its entry")
    sys.exit(1 if wrong else 0)


if __name__ == "__main__":
    main(*sys.argv[1:])
