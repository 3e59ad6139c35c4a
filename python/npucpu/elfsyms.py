"""Exported symbols of a shared library, read from its ELF dynamic symbol table.

Only the standard library is used: the section headers lead to `.dynsym` and
its string table, and every defined global or weak symbol with default or
protected visibility is an exported name.
"""
import struct

_SHT_DYNSYM = 11
_STB_GLOBAL, _STB_WEAK, _STB_GNU_UNIQUE = 1, 2, 10
_STT_OBJECT, _STT_FUNC = 1, 2
_SHN_UNDEF = 0
_STV_HIDDEN, _STV_INTERNAL = 2, 1

_STAGES = ("infershape", "check_supported", "compute")


class ElfError(ValueError):
    pass


# Per ELF class: offset of e_shoff and its format, offset of e_shentsize
# (followed by e_shnum), the section header and the symbol entry.
_CLASSES = {
    1: dict(shoff=(0x20, "I"), shent_at=0x2E, sh="IIIIIIIIII", sym="IIIBBH",
            sym_fields=("name", "value", "size", "info", "other", "shndx")),
    2: dict(shoff=(0x28, "Q"), shent_at=0x3A, sh="IIQQQQIIQQ", sym="IBBHQQ",
            sym_fields=("name", "info", "other", "shndx", "value", "size")),
}


def dynamic_symbols(path):
    """{name: kind} of the symbols a shared library defines and exports;
    kind is 'func', 'object' or 'other'."""
    with open(path, "rb") as f:
        data = f.read()
    if data[:4] != b"\x7fELF" or len(data) < 0x40:
        raise ElfError("%s: not an ELF file" % path)
    cls, order = data[4], data[5]
    if cls not in _CLASSES or order not in (1, 2):
        raise ElfError("%s: unknown ELF class or byte order" % path)
    end = "<" if order == 1 else ">"
    lay = _CLASSES[cls]
    try:
        return _read_dynsym(data, end, lay)
    except (struct.error, IndexError):
        raise ElfError("%s: truncated or malformed ELF file" % path) from None


def _read_dynsym(data, end, lay):
    (shoff,) = struct.unpack_from(end + lay["shoff"][1], data, lay["shoff"][0])
    shentsize, shnum = struct.unpack_from(end + "HH", data, lay["shent_at"])
    if shoff == 0 or shnum == 0:
        raise ElfError("no section headers")
    sections = [struct.unpack_from(end + lay["sh"], data, shoff + k * shentsize)
                for k in range(shnum)]
    sym_fmt = end + lay["sym"]
    symbols = {}
    # Section header fields: name, type, flags, addr, offset, size, link, info,
    # addralign, entsize; a symbol table's link is its string table.
    for sec in sections:
        if sec[1] != _SHT_DYNSYM:
            continue
        offset, size, link, entsize = sec[4], sec[5], sec[6], sec[9]
        strtab = sections[link]
        strings = data[strtab[4]:strtab[4] + strtab[5]]
        entsize = entsize or struct.calcsize(sym_fmt)
        for k in range(size // entsize):
            sym = dict(zip(lay["sym_fields"],
                           struct.unpack_from(sym_fmt, data, offset + k * entsize)))
            bind, kind = sym["info"] >> 4, sym["info"] & 0xF
            if sym["shndx"] == _SHN_UNDEF or bind not in (_STB_GLOBAL, _STB_WEAK,
                                                           _STB_GNU_UNIQUE):
                continue
            if sym["other"] & 3 in (_STV_HIDDEN, _STV_INTERNAL):
                continue
            stop = strings.find(b"\0", sym["name"])
            name = strings[sym["name"]:stop if stop >= 0 else None].decode("utf-8", "replace")
            if name:
                symbols[name] = {_STT_FUNC: "func", _STT_OBJECT: "object"}.get(kind, "other")
    return symbols


def operators_from_names(names):
    """Operators whose three entry points <op>_infershape, <op>_check_supported
    and <op>_compute are all among `names`, sorted."""
    names = set(names)
    suffix = "_" + _STAGES[0]
    ops = {n[:-len(suffix)] for n in names if n.endswith(suffix) and len(n) > len(suffix)}
    return sorted(op for op in ops if all("%s_%s" % (op, s) in names for s in _STAGES))


def operators_in(path):
    syms = dynamic_symbols(path)
    return operators_from_names(n for n, kind in syms.items() if kind == "func")
