"""What a daemon was told and said once, told again to the daemon of this build."""

import glob
import json
import os
import tempfile

from gateway import ROOT, GatewayTest, replay

RECORDINGS = sorted(glob.glob(os.path.join(ROOT, "tests", "system", "recordings", "*.jsonl")))


class Replay(GatewayTest):
    def altered(self, lines):
        with tempfile.NamedTemporaryFile("w", suffix=".jsonl", encoding="utf-8") as file:
            file.writelines(line + "\n" for line in lines)
            file.flush()
            done = replay(file.name)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        return done.stderr.removeprefix(f"ovanictl: {file.name}: ")

    def test_each_plays_as_it_was(self):
        self.assertTrue(RECORDINGS)
        for file in RECORDINGS:
            with self.subTest(file=os.path.basename(file)):
                done = replay(file)
                self.assertEqual(done.returncode, 0, done.stderr)
                self.assertIn(": no difference\n", done.stdout)
        with tempfile.TemporaryDirectory() as directory:
            anew = os.path.join(directory, "anew.jsonl")
            self.assertEqual(replay(RECORDINGS[0], "--write", anew).returncode, 0)
            self.assertEqual(replay(anew).returncode, 0)

    def test_a_difference_is_named(self):
        with open(RECORDINGS[0], encoding="utf-8") as file:
            whole = file.read().splitlines()
        lines = [json.loads(line) for line in whole]

        def with_line(number, text):
            return whole[:number] + ([text] if text else []) + whole[number + 1:]

        for event, before, after in (("lanhost_event", "Q", "R"), ("lanhost_param_change", "A", "B"),
                                     ("lanhost_event", '"Online"', '"OnlinE"')):
            number = next(n for n, line in enumerate(lines) if line.get("event") == event)
            head, raw = whole[number].split('"raw":"')
            at = raw.rindex(before) if '"' not in before else None
            changed = whole[number].replace(before, after, 1) if at is None else \
                f'{head}"raw":"{raw[:at]}{after}{raw[at + 1:]}'
            self.assertRegex(self.altered(with_line(number, changed)),
                             rf"^line {number + 1}: recorded is {event} .*, and the daemon said ")
        # One more or one less than it says, and another store in the end.
        self.assertRegex(self.altered(with_line(number, None)), "^line .*, and the daemon said lanhost_event")
        self.assertRegex(self.altered(whole[:-1] + [whole[number], whole[-1]]),
                         "^line .* recorded is lanhost_event .*, and the daemon said nothing")
        self.assertRegex(self.altered(whole[:-1] + [whole[-1].replace('"Active":"1"', '"Active":"0"', 1)]),
                         r'^line .*: recorded is \S+Active "0" in the store, and it is "1"')

    def test_what_is_no_recording(self):
        with open(RECORDINGS[0], encoding="utf-8") as file:
            head, *_ = file.read().splitlines()
        line = '{"time":"","us":1,'
        for second, wrong in (
                ("{", "no JSON object"), (line + '"none":1}', "says nothing"), (head, "one head"),
                (line + '"event":"110","raw":"AAAA"}', "fields"), (line + '"event":"none","raw":""}', "no event"),
                (line + '"event":"wan_vlan_info","raw":"A"}', "not whole"),
                (line + '"call":"reboot","raw":""}', "no method"), (line + '"mark":"x"}', "unknown mark"),
                (line + '"store":{"/":{}}}', "no object"), (line + '"store":{"A.":{"B":"\\\\"}}}', "no value"),
                (line + '"surroundings":{"links":{"../x":{}}}}', "no name"),
                (line + '"surroundings":{"stations":{"ra0;x":""}}}', "no name"),
                (line + '"surroundings":{"links":{"eth0":{"mac":"x","up":true,"carrier":true}}}}', "no MAC"),
                (line + '"surroundings":{"other":""}}', "not known"), ('{"time":"","us":-1,"mark":"lost"}', "range")):
            self.assertRegex(self.altered([head, second]), f"^line 2: .*{wrong}")
        self.assertRegex(self.altered([head.replace('"recording":1', '"recording":2')]), "^line 1: .*format")
        self.assertEqual(self.altered([]), "it is empty\n")
