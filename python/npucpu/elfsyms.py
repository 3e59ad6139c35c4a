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


def _layout(ident):
    if ident[:4] != b"\x7fELF":
        raise ElfError("not an ELF file")
    cls, data = ident[4], ident[5]
    if cls not in (1, 2) or data not in (1, 2):
        raise ElfError("unknown ELF class or byte order")
    end = "<" if data == 1 else ">"
    if cls == 2:  # 64-bit
        return dict(end=end, hdr=end + "Q", shoff_at=0x28, shnum_at=0x3C,
                    sh=end + "IIQQQQIIQQ", sym=end + "IBBHQQ", sym_fields=("name", "info", "other", "shndx", "value", "size"))
    return dict(end=end, hdr=end + "I", shoff_at=0x20, shnum_at=0x30,
                sh=end + "IIIIIIIIII", sym=end + "IIIBBH", sym_fields=("name", "value", "size", "info", "other", "shndx"))


def dynamic_symbols(path):
    """{name: kind} of the symbols a shared library defines and exports;
    kind is 'func', 'object' or 'other'."""
    with open(path, "rb") as f:
        data = f.read()
    if len(data) < 0x40:
        raise ElfError("%s: file too short for an ELF header" % path)
    lay = _layout(data[:16])
    end = lay["end"]
    (shoff,) = struct.unpack_from(lay["hdr"], data, lay["shoff_at"])
    shentsize, shnum = struct.unpack_from(end + "HH", data, lay["shnum_at"] - 2)
    if shoff == 0 or shnum == 0:
        raise ElfError("%s: no section headers" % path)
    try:
        sections = [struct.unpack_from(lay["sh"], data, shoff + k * shentsize) for k in range(shnum)]
    except struct.error:
        raise ElfError("%s: truncated section headers" % path) from None
    # Section header fields: name, type, flags, addr, offset, size, link, info, align, entsize.
    symbols = {}
    for sec in sections:
        if sec[1] != _SHT_DYNSYM:
            continue
        offset, size, link, entsize = sec[4], sec[5], sec[6], sec[9]
        strtab = sections[link]
        str_off, str_size = strtab[4], strtab[5]
        strings = data[str_off:str_off + str_size]
        entsize = entsize or struct.calcsize(lay["sym"])
        for k in range(size // entsize):
            sym = dict(zip(lay["sym_fields"], struct.unpack_from(lay["sym"], data, offset + k * entsize)))
            bind, kind = sym["info"] >> 4, sym["info"] & 0xF
            if sym["shndx"] == _SHN_UNDEF or bind not in (_STB_GLOBAL, _STB_WEAK, _STB_GNU_UNIQUE):
                continue
            if sym["other"] & 3 in (_STV_HIDDEN, _STV_INTERNAL):
                continue
            end_at = strings.find(b"\0", sym["name"])
            name = strings[sym["name"]:end_at if end_at >= 0 else None].decode("utf-8", "replace")
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
