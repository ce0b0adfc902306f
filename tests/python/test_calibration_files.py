"""Calibration files read by parsers other than ours (Python's json, PyYAML), and files
our reader must refuse before Python sees their text."""
import json
import math
import struct

import pytest
import yaml

import qvreconstruction as qv

# Labels JSON must escape (controls, NUL, quotes, backslashes) and characters YAML
# readers take for line breaks or byte order marks, or refuse unescaped (U+0085,
# U+2028, U+FEFF, U+FFFE), beside noncharacters and text past U+FFFF.
LABELS = [
    "no-break\u00a0space, next line\u0085, C1 \u0080\u009f, DEL \x7f",
    "controls \x00 \x01 \x07 \x08 \x0c \x1b \x1f tab\tcr\rlf\n",
    "line\u2028paragraph\u2029 bom \ufeff nonchars \ufffe \uffff \ufdd0 \ufdef \U0001fffe \U0010ffff",
    '"quoted" back\\slash \\u0041 \\x41 # - [a] {b: c} &d *e !f %g @h `i',
    "Modul \u00c4 \u6df1\u5ea6 \U0001f4f7",
]


def bits(value):
    return struct.pack("<f", value)


def test_json_output_is_json_and_yaml_output_is_yaml_for_every_label(tmp_path):
    binned, full = qv.sample_calibration()
    full.depth_offset_f2 = -0.0
    full.depth_offset_f1 = 1e-45  # the smallest 32-bit float: its shortest text is 1e-45
    for label in LABELS:
        binned.label = label
        full.label = label[::-1]
        qv.save_calibration(str(tmp_path / "module.json"), binned, full)
        qv.save_calibration(str(tmp_path / "module.yaml"), binned, full)

        def refuse_constant(name):
            raise ValueError(f"{name} is not JSON")

        # Strict JSON: no control character inside a string, no NaN or Infinity.
        with open(tmp_path / "module.json", encoding="utf-8") as f:
            document = json.load(f, parse_constant=refuse_constant)
        assert document["binned"]["label"] == binned.label
        assert document["full"]["label"] == full.label
        assert bits(document["full"]["depthOffsetF2"]) == bits(-0.0)
        assert bits(document["full"]["depthOffsetF1"]) == bits(full.depth_offset_f1)
        assert not math.isnan(document["full"]["depthLens"]["fx"])

        with open(tmp_path / "module.yaml", encoding="utf-8") as f:
            document = yaml.safe_load(f)
        assert document["binned"]["label"] == binned.label
        assert document["full"]["label"] == full.label

        for name in ("module.json", "module.yaml"):
            back_binned, back_full = qv.load_calibration(str(tmp_path / name))
            assert (back_binned, back_full) == (binned, full), name
            assert bits(back_full.depth_offset_f2) == bits(-0.0), name


@pytest.mark.parametrize("name, text, field", [
    ("raw.yaml", b'full:\n  label: "module \xff 7"\n', "full.label"),
    ("plain.yaml", b"binned:\n  label: caf\xc3\n", "binned.label"),
    ("surrogate.json", b'{"full": {"label": "\xed\xa0\x80"}}', "full.label"),
])
def test_label_that_is_not_utf8_is_refused_at_load_naming_the_field(tmp_path, name, text, field):
    path = tmp_path / name
    path.write_bytes(text)
    with pytest.raises(ValueError, match=rf"{name}: {field}: is not UTF-8 text \(byte 0x"):
        qv.load_calibration(str(path))


def test_errors_quoting_bytes_that_are_not_utf8_are_still_text(tmp_path):
    path = tmp_path / "key.yaml"
    path.write_bytes(b"full:\n  depth\xffOffset: 1\n")
    with pytest.raises(ValueError, match=r"unknown field 'depth\\xFFOffset'"):
        qv.load_calibration(str(path))
