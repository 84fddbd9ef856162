# brakwell.lib declares exactly the names of Brakwell.h, read here apart from lib.py's table.
import ctypes as C
import re
from pathlib import Path

from brakwell import lib

HEADER = Path(__file__).resolve().parents[2] / "include" / "Brakwell.h"
BASE = {"void": None, "bool": C.c_bool, "int": C.c_int, "long": C.c_long, "float": C.c_float,
        "char": C.c_char, "unsigned char": C.c_ubyte, "uint16_t": C.c_uint16,
        "uint32_t": C.c_uint32, "int32_t": C.c_int32, "FixtureController": lib.FixtureController,
        "AppleDevRecord": lib.AppleDevRecord}


def ctype(text):
    text = re.sub(r"\b(const|struct)\b", "", text)
    base, stars = re.sub(r"\s+", " ", text.replace("*", "")).strip(), text.count("*")
    if stars and (base in ("char", "void") or base not in BASE):  # texts, void*, opaque types
        return (C.c_char_p if base == "char" else C.c_void_p) if stars == 1 else C.POINTER(C.c_void_p)
    return C.POINTER(BASE[base]) if stars else BASE[base]


def declarations():
    text = re.sub(r"/\*.*?\*/", "", HEADER.read_text(), flags=re.S)
    sizes = dict(re.findall(r"#define (BRAKWELL_\w+) (\d+)", text))
    functions, variables = {}, {}
    for decl in re.findall(r"^BRAKWELL_API\s+([^;]+);", text, flags=re.M):
        if m := re.fullmatch(r"extern\s+(.+?)(\w+)((?:\[\w+\])*)", decl.strip()):
            t = ctype(m[1])
            for dim in reversed(re.findall(r"\[(\w+)\]", m[3])):
                t = t * int(sizes[dim])
            variables[m[2]] = t
        else:
            m = re.fullmatch(r"(.+?)(\w+)\s*\((.*)\)", decl.strip(), flags=re.S)
            args = [re.sub(r"\w+$", "", a.strip()) for a in m[3].split(",") if a.strip() != "void"]
            functions[m[2]] = (ctype(m[1]), [ctype(a) for a in args if a])
    return functions, variables


def test_functions_and_tables_match_the_header():
    functions, variables = declarations()
    assert len(functions) > 140 and set(lib.FUNCTIONS) == set(functions)
    assert set(lib.VARIABLES) == set(variables)
    for name, (restype, argtypes) in functions.items():
        fn = getattr(lib, name)
        assert (fn.restype, list(fn.argtypes)) == (restype, argtypes), name
    for name, t in variables.items():
        assert type(getattr(lib, name)) is t, name
    assert [f[0] for f in lib.AppleDevRecord._fields_] == ["notification", "deviceName", "locationID"]
