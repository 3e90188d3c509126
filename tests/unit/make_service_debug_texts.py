#!/usr/bin/env python3
"""Writes ServiceDebugTexts.txt: what service values are to be shown as.

Run it only when the texts are meant to change, and review the difference:

    tests/unit/make_service_debug_texts.py > tests/unit/ServiceDebugTexts.txt

The texts are stated here a second time, on purpose. Lines are a kind, its values and, after a tab,
the text.
"""

import random

INVALID = "inv"

# value: text, as the television's service names them; values without an entry have no text
MODES = {
    -2: "auto", -1: "unknown", 0: "atsc", 1: "dvb", 2: "isdb", 3: "fsat", 4: "candig", 5: "tivu",
    6: "cdtvv", 7: "astra", 8: "digplus", 9: "dsmart", 10: "digiturk", 11: "fransat",
    12: "freeview", 13: "ncplus", 14: "nnk",
    15: "skylink", 16: "airtel", 17: "hdaustria", 18: "otau", 19: "ciop1", 20: "ciop2",
    21: "dvbnt", 23: "polsat", 24: "ntvplus", 25: "telekarta", 26: "tricolor", 27: "sundirect",
    28: "digi", 29: "mts-sat", 30: "nagvexop1", 31: "nagvexop2", 32: "nagvexop3",
    33: "nagvexop4", 34: "dishtv", 37: "diveo", 38: "simplitv", 39: "alma-sat", 40: "tkgs",
    41: "mychannel", 42: "bulgaria_a1", 43: "japan-bs", 44: "japan-cs", 45: "freesat_m7",
    46: "upcdirect", 47: "focussat", 48: "slovak_telekom", 49: "digi_slovakia",
    50: "t_mobile_cz", 51: "telly_cz", 52: "Osterreichliste", 53: "Prosieben",
}

PROFILES = {
    -1: "unknown", 0: "atsc", 1: "isdb", 2: "dvb", 3: "fsat", 4: "candig", 5: "tive", 6: "cdtvv",
    7: "astra", 8: "digplus", 9: "dsmart", 10: "digiturk", 11: "fransat", 12: "freeview",
    13: "ncplus", 14: "nnk", 15: "skylink", 16: "airtel",
    17: "hdaustria", 18: "otau", 19: "ciop1", 20: "ciop2", 21: "dvbnt", 23: "stb", 24: "polsat",
    25: "tricolor", 26: "telekarta", 27: "ntvplus", 28: "sundirect", 29: "digi", 30: "mts-sat",
    31: "nagvexop1", 32: "nagvexop2", 33: "nagvexop3", 34: "nagvexop4", 35: "dishtv",
    39: "diveo", 40: "simplitv", 41: "alma-sat", 42: "tkgs", 43: "bulgaria_a1", 44: "japan-bs",
    45: "japan-cs", 46: "freesat-m7", 47: "upcdirect", 48: "focussat", 49: "slovak-telekom",
    50: "digi-slovakia", 51: "t-mobile-cz", 52: "telly-cz", 53: "Osterreichliste",
    54: "Prosieben",
}

CHANNEL_TYPES = {
    1: "atv", 2: "dtv", 3: "catv", 4: "cdtv", 7: "sdtv", 8: "media", 9: "virt", 10: "iptv",
    11: "hotel-ext",
}

BROADCAST_TYPES = {-2: "auto", -1: "und", 0: "air", 1: "cbl", 2: "sat"}

RESERVED_MINORS = {1020: 65532, 1021: 65533, 1022: 65534}


def bits(value, first, last):
    """Bits first to last of value, both included, counted from the least significant."""
    return (value >> first) % 2 ** (last - first + 1)


def id_text(value):
    """The text of a packed service id, which holds 99 characters at most."""
    if value == 2**64 - 1:
        return "INVALID_SERVICE_ID"
    if bits(value, 56, 63) == 0xFA:
        kind = " (dirTune)(cT:{},cN:{})".format(
            CHANNEL_TYPES.get(bits(value, 16, 31), INVALID), bits(value, 0, 15))
    elif bits(value, 60, 63) == 0:
        kind = " (defSrv)(cT:{},sP:{},cN:{})".format(
            CHANNEL_TYPES.get(bits(value, 21, 24), INVALID),
            PROFILES.get(bits(value, 0, 5), INVALID), bits(value, 6, 20))
    else:
        minor = bits(value, 0, 9)
        kind = " (cT:{},sP:{},cN:{},mj:{},mn:{},pN:{})".format(
            CHANNEL_TYPES.get(bits(value, 60, 63), INVALID),
            PROFILES.get(bits(value, 39, 44), INVALID), bits(value, 45, 59),
            bits(value, 10, 22), RESERVED_MINORS.get(minor, minor), bits(value, 23, 38))
    return ("0x%X" % value + kind)[:99]


def ids():
    """200 ids: the limits of every layout and field, then random ones of each layout in turn."""
    chosen = [
        2**64 - 1, 2**64 - 2, 0, 1, 2**60 - 1, 2**60, 0xF9FFFFFFFFFFFFFF, 0xFA00000000000000,
        0xFAFFFFFFFFFFFFFF, 0xFB00000000000000, 0xFA000000000B0005, 0xFA000000000C0005,
        0xFA00000000100001, 0xFA0000000FFF0001, 0xFA00000100010001, 0xA000000000000000,
        0x0FA0000000000000,
    ]
    chosen += [0xFA << 56 | kind << 16 | 100 + kind for kind in range(16)]
    chosen += [kind << 21 | 7 << 6 | 2 for kind in range(16)]
    chosen += [kind << 60 | 2 << 39 | 3 << 45 | 4 << 10 | 5 << 23 | 6 for kind in range(1, 16)]
    chosen += [2 << 60 | minor for minor in (1018, 1019, 1020, 1021, 1022, 1023)]
    for first, last in ((0, 5), (6, 20), (21, 24), (25, 59)):  # one field after the other full
        chosen.append((2 ** (last - first + 1) - 1) << first)
    for first, last in ((0, 9), (10, 22), (23, 38), (39, 44), (45, 59)):
        chosen.append(1 << 60 | (2 ** (last - first + 1) - 1) << first)
    source = random.Random(20)
    while len(chosen) < 200:
        rest = source.getrandbits(60)
        top = (0, source.randrange(1, 16), 0xF)[len(chosen) % 3]
        if len(chosen) % 3 == 2:  # direct tune; the type is one that may have a text
            rest = 0xA << 56 | source.getrandbits(24) << 32 | source.randrange(14) << 16
            rest |= source.getrandbits(16)
        chosen.append(top << 60 | rest)
    return chosen


def main():
    """Prints all lines."""
    for value in range(-3, 61):
        print("mode %d\t%s" % (value, MODES.get(value, INVALID)))
    for value in range(-3, 61):
        print("profile %d\t%s" % (value, PROFILES.get(value, INVALID)))
    for kind in range(-4, 6):
        for mode in (-3, -2, 0, 22, 52):
            text = BROADCAST_TYPES.get(kind, INVALID) + "-" + MODES.get(mode, INVALID)
            print("tvmode %d %d\t%s" % (kind, mode, text[:29]))
    for value in ids():
        print("id %016X\t%s" % (value, id_text(value)))


if __name__ == "__main__":
    main()
