#!/usr/bin/env python3
"""Writes the starting corpora of the fuzz targets into fuzz/corpus/<target>/.

    python3 fuzz/make_seeds.py

fuzz_file gets the small real files of tests/data and one small file per
class of bad input, each a complete little movie with one thing wrong;
fuzz_child gets single boxes behind its selector byte (0: a child of stbl,
1: a child of stsd); fuzz_edit gets a few fixed pseudo-random inputs;
fuzz_command gets the real files alone (scripts/fuzz.sh adds those of
fuzz_file when it runs it).
The output depends on nothing but this script and tests/data, so running
it again writes the same bytes.
"""
import pathlib
import random
import shutil
import struct

HERE = pathlib.Path(__file__).resolve().parent
CORPUS = HERE / "corpus"
TEST_DATA = HERE.parent / "tests" / "data"
U32 = 0xFFFFFFFF


def be32(v):
    return struct.pack(">I", v & U32)


def be64(v):
    return struct.pack(">Q", v)


def box(kind, body=b"", size=None):
    """A box with a 32-bit size: the true one unless `size` says otherwise."""
    return be32(8 + len(body) if size is None else size) + kind.encode() + body


def large_box(kind, body=b"", size=None):
    """A box with size 1 and a 64-bit size after the type."""
    return be32(1) + kind.encode() + be64(16 + len(body) if size is None else size) + body


def full(version=0, flags=0):
    return bytes([version]) + flags.to_bytes(3, "big")


def table(kind, rows, count=None, wide=False, sample_size=None):
    """A sample table box; `count` overrides the entry count written."""
    rows = [r if isinstance(r, tuple) else (r,) for r in rows]
    word = be64 if wide else be32
    lead = be32(sample_size or 0) if kind == "stsz" else b""
    n = len(rows) if count is None else count
    return box(kind, full() + lead + be32(n) + b"".join(word(x) for r in rows for x in r))


WIDTH = {"stts": 8, "stsc": 12, "stsz": 4, "stss": 4, "stco": 4, "co64": 8}


def guard_table(kind, rows, delta):
    """A table whose count sits `delta` from the limit its box size allows,
    (0xFFFFFFFF - size) / width."""
    size = len(table(kind, rows))
    return table(kind, rows, count=(U32 - size) // WIDTH[kind] + delta, wide=kind == "co64")


def visual(kind, children=b"", width=64, height=48):
    fields = bytes(6) + struct.pack(">HHHIIIHHIIIH", 1, 0, 0, 0, 0, 0, width, height,
                                    0x480000, 0x480000, 0, 1)
    return box(kind, fields + bytes(32) + struct.pack(">HH", 24, 0xFFFF) + children)


def audio(kind, children=b"", version=0, rate=22050):
    fields = bytes(6) + struct.pack(">HHHIHHHHI", 1, version, 0, 0, 1, 16, 0, 0, rate << 16)
    if version == 1:
        fields += struct.pack(">IIII", 1024, 4, 8, 2)
    return box(kind, fields + children)


AVCC = box("avcC", bytes([1, 0x42, 0, 0x1E, 0xFF, 0xE1, 0, 4]) + b"\x67\x42\x00\x1e" + b"\x01\x00\x02\x68\xce")
ESDS = box("esds", full() + bytes.fromhex("03190000000411400000000000000000000000000000000005021210060102"))

# The good movie: ftyp, mdat, moov with a video and an audio track. Video:
# five samples in chunks of 2, 2 and 1; audio: three samples in one chunk.
FTYP = box("ftyp", b"isom" + be32(0x200) + b"isommp41")
VIDEO_SIZES = [10, 4, 4, 6, 4]
AUDIO_SIZES = [5, 5, 5]
DATA_AT = len(FTYP) + 8
MDAT = box("mdat", bytes(range(1, 1 + sum(VIDEO_SIZES) + sum(AUDIO_SIZES))))
VIDEO = {
    "stsd": box("stsd", full() + be32(1) + visual("avc1", AVCC)),
    "stts": table("stts", [(5, 1000)]),
    "stsc": table("stsc", [(1, 2, 1), (3, 1, 1)]),
    "stsz": table("stsz", VIDEO_SIZES),
    "stss": table("stss", [1, 4]),
    "stco": table("stco", [DATA_AT, DATA_AT + 14, DATA_AT + 24]),
}
# One small valid table of each kind, for the count limits.
ROWS = {"stts": [(5, 1000)], "stsc": [(1, 2, 1)], "stsz": VIDEO_SIZES,
        "stss": [1], "stco": [DATA_AT], "co64": [DATA_AT]}
AUDIO = {
    "stsd": box("stsd", full() + be32(1) + audio("mp4a", ESDS)),
    "stts": table("stts", [(3, 1024)]),
    "stsc": table("stsc", [(1, 3, 1)]),
    "stsz": table("stsz", AUDIO_SIZES),
    "stco": table("stco", [DATA_AT + sum(VIDEO_SIZES)]),
}


def track(track_id, handler, tables, timescale):
    tkhd = box("tkhd", full(0, 3) + struct.pack(">IIIII", 0, 0, track_id, 0, 5000) + bytes(60))
    mdhd = box("mdhd", full() + struct.pack(">IIIIHH", 0, 0, timescale, 5000, 0x55C4, 0))
    hdlr = box("hdlr", full() + be32(0) + handler.encode() + bytes(12) + b"fuzz\0")
    stbl = box("stbl", b"".join(tables.values()))
    return box("trak", tkhd + box("mdia", mdhd + hdlr + box("minf", stbl)))


def movie(video=None, audio_tables=None, moov_extra=b"", moov_first=False):
    """The good movie with some of its video or audio tables replaced."""
    v = dict(VIDEO, **(video or {}))
    a = dict(AUDIO, **(audio_tables or {}))
    mvhd = box("mvhd", full() + struct.pack(">IIII", 0, 0, 1000, 5000) + bytes(80))
    moov = box("moov", mvhd + track(1, "vide", v, 25000) + track(2, "soun", a, 22050) + moov_extra)
    return FTYP + moov + MDAT if moov_first else FTYP + MDAT + moov


def hostile_files():
    f = {"good": movie(), "good_moov_first": movie(moov_first=True)}
    # Entry count times width past 32 bits.
    f["count_overflow_stts"] = movie({"stts": table("stts", [(5, 1000)], count=0x20000001)})
    f["count_overflow_stsc"] = movie({"stsc": table("stsc", [(1, 2, 1)], count=0x15555556)})
    f["count_overflow_stsz"] = movie({"stsz": table("stsz", VIDEO_SIZES, count=0x40000001)})
    f["count_overflow_stss"] = movie({"stss": table("stss", [1], count=0x40000001)})
    f["count_overflow_stco"] = movie({"stco": table("stco", [DATA_AT], count=0x40000001)})
    f["count_overflow_co64"] = movie({"stco": table("co64", [DATA_AT], count=0x20000001, wide=True)})
    # A count larger than the box holds.
    f["count_past_box_stts"] = movie({"stts": table("stts", [(5, 1000)], count=2)})
    f["count_past_box_stsz"] = movie({"stsz": table("stsz", VIDEO_SIZES, count=1000)})
    f["count_past_box_stco"] = movie({"stco": table("stco", [DATA_AT] * 3, count=4)})
    # Counts at each guard's limit, just under it and just over it.
    for kind, rows in ROWS.items():
        slot = "stco" if kind == "co64" else kind
        for name, delta in [("at", 0), ("under", -1), ("over", 1)]:
            f[f"guard_{kind}_{name}"] = movie({slot: guard_table(kind, rows, delta)})
    # Box sizes below the header, past the parent, 0 and 1 in several places.
    f["size_below_header_stts"] = movie({"stts": box("stts", full() + be32(0), size=4)})
    f["size_below_header_trak"] = movie(moov_extra=box("trak", bytes(8), size=7))
    f["size_past_parent_stsz"] = movie({"stsz": box("stsz", full() + be32(0) + be32(5), size=200)})
    f["size_past_file_moov"] = FTYP + MDAT + box("moov", bytes(16), size=5000)
    f["size0_moov_last"] = FTYP + MDAT + be32(0) + movie()[len(FTYP) + len(MDAT) + 4:]
    f["size0_stco_last"] = movie({"stco": be32(0) + VIDEO["stco"][4:]})
    f["size0_stts_first"] = movie({"stts": be32(0) + VIDEO["stts"][4:]})
    f["size0_sample_entry"] = movie({"stsd": box("stsd", full() + be32(1) + be32(0) + visual("avc1", AVCC)[4:])})
    f["size0_mdat_last"] = movie(moov_first=True)[:-len(MDAT)] + be32(0) + MDAT[4:]
    f["size1_mdat"] = FTYP + large_box("mdat", MDAT[8:]) + movie()[len(FTYP) + len(MDAT):]
    f["size1_stsz"] = movie({"stsz": large_box("stsz", table("stsz", VIDEO_SIZES)[8:])})
    f["size1_below_16"] = movie({"stss": large_box("stss", full() + be32(0), size=12)})
    f["size1_huge"] = movie({"stco": large_box("stco", VIDEO["stco"][8:], size=1 << 63)})
    f["size1_trak"] = movie(moov_extra=large_box("trak", b""))
    # Truncation inside a table.
    whole = movie(moov_first=True)
    at_stsz = whole.index(b"stsz") + 16
    f["truncated_in_stsz"] = whole[:at_stsz + 6]
    f["truncated_in_stco"] = whole[:whole.index(b"stco") + 14]
    # stsd entries that claim more than they hold.
    entry = visual("avc1", AVCC)
    f["stsd_count_over"] = movie({"stsd": box("stsd", full() + be32(7) + entry)})
    f["stsd_count_zero"] = movie({"stsd": box("stsd", full() + be32(0) + entry)})
    f["stsd_entry_past_stsd"] = movie({"stsd": box("stsd", full() + be32(1) + be32(len(entry) + 40) + entry[4:])})
    f["stsd_entry_short"] = movie({"stsd": box("stsd", full() + be32(1) + box("avc1", bytes(20)))})
    f["stsd_trailing_bytes"] = movie({"stsd": box("stsd", full() + be32(1) + entry + b"\0\0\1")})
    f["stsd_no_body"] = movie({"stsd": box("stsd", full())})
    # Sample entries with broken child boxes.
    f["entry_child_size3"] = movie({"stsd": box("stsd", full() + be32(1) + visual("avc1", be32(3) + AVCC[4:]))})
    f["entry_child_past_entry"] = movie({"stsd": box("stsd", full() + be32(1) + visual("hvc1", be32(400) + AVCC[4:]))})
    f["entry_child_size0"] = movie({"stsd": box("stsd", full() + be32(1) + visual("avc1", be32(0) + AVCC[4:]))})
    f["entry_child_large"] = movie({"stsd": box("stsd", full() + be32(1) + visual("apch", large_box("colr", b"nclx")))})
    f["entry_child_garbage"] = movie(audio_tables={"stsd": box("stsd", full() + be32(1) + audio("mp4a", ESDS + b"\x07"))})
    f["entry_audio_v1_short"] = movie(audio_tables={"stsd": box("stsd", full() + be32(1) + audio("alaw", version=1)[:40])})
    f["entry_gpmd_short"] = movie(audio_tables={"stsd": box("stsd", full() + be32(1) + box("gpmd", bytes(5)))})
    # Deep nesting: past the reader's limit and just within it.
    deep = box("udta")
    for _ in range(100):
        deep = box("moov", deep)
    f["nested_moov_100"] = FTYP + deep
    deep = box("free")
    for _ in range(60):
        deep = box("trak", deep)
    f["nested_trak_60"] = movie(moov_extra=deep)
    # Empty tables in every table box.
    f["empty_tables"] = movie({k: table(k, []) for k in ("stts", "stsc", "stsz", "stss", "stco")} |
                              {"stsd": box("stsd", full() + be32(0))})
    f["empty_co64"] = movie(audio_tables={"stts": table("stts", []), "stsz": table("stsz", []),
                                          "stsc": table("stsc", []), "stco": table("co64", [], wide=True)})
    # co64 offsets near 2^64.
    f["co64_near_2_64"] = movie({"stco": table("co64", [2**64 - 16, 2**64 - 2, 2**64 - 1], wide=True)})
    f["co64_wraps"] = movie({"stco": table("co64", [DATA_AT, 2**64 - 1, 2**63], wide=True)})
    # Tables that disagree with each other.
    f["stts_count_mismatch"] = movie({"stts": table("stts", [(4, 1000), (0, 7), (2, 0)])})
    f["stsc_zero_per_chunk"] = movie({"stsc": table("stsc", [(1, 0, 1), (2, 2, 1)])})
    f["stsc_first_chunk_falls"] = movie({"stsc": table("stsc", [(1, 2, 1), (1, 1, 1)])})
    f["stsc_bad_description"] = movie({"stsc": table("stsc", [(1, 2, 2)])})
    f["stsc_past_chunks"] = movie({"stsc": table("stsc", [(1, 1, 1)])})
    f["stss_unsorted"] = movie({"stss": table("stss", [4, 1, 9])})
    f["stco_past_file"] = movie({"stco": table("stco", [DATA_AT, U32 - 3, DATA_AT])})
    f["stsz_default_size"] = movie({"stsz": table("stsz", VIDEO_SIZES, sample_size=4)})
    f["two_stco"] = movie({"co64": table("co64", [DATA_AT] * 3, wide=True)})
    f["stts_huge_runs"] = movie({"stts": table("stts", [(1, U32), (1, U32), (1, U32), (1, U32), (1, U32)])})
    return f


def child_seeds():
    """Boxes for fuzz_child: 0 + a child of stbl, 1 + a child of stsd."""
    s = {}
    for kind, body in VIDEO.items():
        s[f"stbl_{kind}"] = b"\0" + body
    s["stbl_co64"] = b"\0" + table("co64", [1, 2**40, 2**64 - 1], wide=True)
    s["stbl_all"] = b"\0" + b"".join(VIDEO.values()) + box("sdtp", bytes(9))
    for kind in WIDTH:
        s[f"stbl_{kind}_empty"] = b"\0" + table(kind, [], wide=kind == "co64")
        s[f"stbl_{kind}_guard"] = b"\0" + guard_table(kind, ROWS[kind], 0)
    s["stbl_stsz_large"] = b"\0" + large_box("stsz", table("stsz", [1, 2])[8:])
    s["stbl_stts_size0"] = b"\0" + be32(0) + table("stts", [(2, 5)])[4:]
    s["stbl_stts_trailing"] = b"\0" + box("stts", table("stts", [(2, 5)])[8:] + b"xyz")
    s["stbl_unknown"] = b"\0" + box("STTS", bytes(8)) + box("stsX", bytes(4))
    entries = {
        "avc1": visual("avc1", AVCC), "hvc1": visual("hvc1", box("hvcC", bytes(23))),
        "apch": visual("apch"), "apco": visual("apco"), "apcn": visual("apcn", box("colr", b"nclc" + bytes(6))),
        "apcs": visual("apcs", b"\0\0"), "mp4a": audio("mp4a", ESDS), "alaw": audio("alaw", version=1),
        "ulaw": audio("ulaw", box("chan", bytes(12))), "gpmd": box("gpmd", bytes(12)),
        "mp4a_v2": audio("mp4a", version=2) + bytes(36), "other": box("xvid", bytes(30)),
    }
    for name, body in entries.items():
        s[f"stsd_{name}"] = b"\1" + body
    s["stsd_entry_size0"] = b"\1" + be32(0) + visual("avc1", AVCC)[4:]
    s["stsd_child_size3"] = b"\1" + visual("avc1", be32(3) + AVCC[4:])
    s["stsd_child_large"] = b"\1" + audio("mp4a", large_box("esds", ESDS[8:]))
    s["stsd_short_fields"] = b"\1" + box("avc1", bytes(40))
    return s


def edit_seeds():
    rng = random.Random(20240229)
    return {f"random_{n}": bytes(rng.randrange(256) for _ in range(n)) for n in (64, 512, 4096, 16384)} | {
        "small_numbers": bytes([1, 2, 3, 0, 8] * 400)}


def write(target, files, suffix):
    folder = CORPUS / target
    if folder.exists():
        shutil.rmtree(folder)
    folder.mkdir(parents=True)
    for name, data in sorted(files.items()):
        (folder / f"{name}{suffix}").write_bytes(data)
    return folder


def main():
    folder = write("fuzz_file", hostile_files(), ".mp4")
    command = write("fuzz_command", {}, "")
    for real in sorted(TEST_DATA.glob("*")):
        if real.is_file() and real.suffix in (".mp4", ".mov") and real.stat().st_size <= 64 * 1024:
            shutil.copyfile(real, folder / f"real_{real.name}")
            shutil.copyfile(real, command / f"real_{real.name}")
    write("fuzz_child", child_seeds(), ".bin")
    write("fuzz_edit", edit_seeds(), ".bin")
    for target in ("fuzz_file", "fuzz_child", "fuzz_edit", "fuzz_command"):
        print(f"{CORPUS / target}: {len(list((CORPUS / target).iterdir()))} files")


if __name__ == "__main__":
    main()
