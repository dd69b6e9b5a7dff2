"""Which symbols of our own Mach-O objects refer to and none defines."""

import re
import subprocess

# What the C++ library, ICU, GoogleTest and Qt define, by how the names begin.
ABOUT = r"(?:(?:vtable|typeinfo|typeinfo name|VTT|guard variable) for |(?:non-)?virtual thunk to )?"
OTHERS = re.compile(ABOUT + r"(?:std::|testing::|icu_\d+::|operator (?:new|delete)|__cxxabiv1::"
                    r"|Q[A-Z]|Qt\w*::|qt_|operator\S+\(Q[A-Z]"
                    # But for what the build makes.
                    r"|q(?!InitResources|ml_register)\w+\()")


def names(option, objects):
    listing = subprocess.run(["llvm-nm", "--just-symbol-name", "--extern-only", option, *objects],
                             check=True, text=True, stdout=subprocess.PIPE).stdout
    return {line for line in listing.splitlines() if line and not line.endswith(":")}


def undefinedOnes(objects):
    """Sorted; C functions, which are the system's and the libraries', are left out."""
    missing = names("--undefined-only", objects) - names("--defined-only", objects)
    mangled = sorted(name[1:] for name in missing if name.startswith("__Z"))
    if not mangled:
        return []
    readable = subprocess.run(["llvm-cxxfilt"], check=True, text=True, input="\n".join(mangled),
                              stdout=subprocess.PIPE).stdout.splitlines()
    return [name for name in readable if not OTHERS.match(name)]
