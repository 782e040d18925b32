#!/usr/bin/env python3
"""Writes encoding_manager_rows.inc to standard output: the GBK rows of code page 936 as characters, lead byte by
lead byte. The published mapping (Python's gbk codec) plus the code page's private-use assignments.

    ./encoding_manager_rows.py > encoding_manager_rows.inc
"""

FIRST, LAST = 0x8140, 0xFEA0
TRAILS = [t for t in range(0x40, 0xFF) if t != 0x7F]


def private_use():
    """Codes that code page 936 assigns in the private use area."""
    codes = {0xA8BC: 0xE7C7, 0xA8BF: 0xE7C8}
    codes.update({0xA989 + i: 0xE7E7 + i for i in range(0xA995 - 0xA989 + 1)})
    fe50 = [0xFE00 + t for t in TRAILS if 0x50 <= t <= 0xA0]
    codes.update({code: 0xE815 + i for i, code in enumerate(fe50)})
    return codes


PRIVATE = private_use()


def decode(code):
    if not FIRST <= code <= LAST:
        return None
    if code in PRIVATE:
        return PRIVATE[code]
    try:
        return ord(code.to_bytes(2, "big").decode("gbk"))
    except UnicodeDecodeError:
        return None


def literal(point):
    if point is None:
        return "\ufffd"
    return f"\\u{point:04X}" if 0xE000 <= point <= 0xF8FF else chr(point)


def main():
    print("// Written by encoding_manager_rows.py; do not edit.")
    for lead in range(FIRST >> 8, (LAST >> 8) + 1):
        points = [decode(lead << 8 | trail) for trail in TRAILS]
        while points and points[-1] is None:
            points.pop()
        print(f'/* {lead:02X} */ u"{"".join(literal(p) for p in points)}",')


if __name__ == "__main__":
    main()
