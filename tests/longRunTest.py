"""Thousands of strokes, undos, redos, cancels and edits, and what is left of them."""

import json
import os
import random
import re
import unittest

from sculpting import BAD, COUNTS, VIEW, Sculpting
from support import array_of, regions_of

STROKES = int(os.environ.get("CORVELLE_STROKES", "400"))  #: 10000 for a nightly run
SEED = int(os.environ.get("CORVELLE_SEED", "7"))  #: of that run


class LongRunTest(Sculpting):
    """Thousands of random strokes, undos, redos, cancels and edits equal a replay of what was kept.

    The ids of guides that an undo takes away are never given again, so the replay gives as many
    away before each step that makes guides."""

    SHAPING = ["comb", "smooth", "straighten", "lift", "twist", "curl", "attract", "direction", "noise", "tube",
               "cut", "length", "slide"]
    OTHERS = ["freeze", "part", "flow", "paint", "width", "density"]
    MAPS = [{"paintKind": "vertices", "attribute": "v"}, {"paintKind": "texture", "paintTexture": "t"},
            {"paintKind": "guides", "attribute": "g"}]
    #: Every key that a later stroke may change, so that a stroke depends on nothing before it.
    PLAIN = {"symmetry": "none", "propagate": False, "stretch": False, "pointwise": False, "targets": "guides",
             "value": 1.0, "flowSink": "", "matchNeighbors": True, "soloNewGuides": False, "frontFacingOnly": True,
             "spacing": 1.0, "selectedOnly": False, "level": 0, "group": "", **MAPS[0]}

    def new_groom(self, guides=True):
        groom = super().new_groom(guides)
        groom.do("map_create", name="v", kind="vertices", value=0.5)
        groom.do("map_create", name="t", kind="texture", resolution=64, color=True)
        groom.do("map_create", name="g", kind="guides", value=0.5)
        return groom

    def ids(self, groom):
        return set(array_of(groom.do("get_guides", source="hierarchy")["arrays"]["ids"]).tolist())

    def apply(self, groom, action, disturb=None):
        """Does an action; whether it became a step. `disturb` sends what is bad into a stroke."""
        kind, fields = action
        if kind == "edit":
            before = groom.do("get_state", texts=True, textures=False)["texts"]
            groom.do("guides_edit", **fields)
            return groom.do("get_state", texts=True, textures=False)["texts"] != before
        settings = {**self.PLAIN, **fields["settings"]}
        groom.do("tool_set", tool=fields["tool"], settings=settings)
        if fields["selected"]:
            groom.do("selection_set", ids=fields["selected"], softSelectRadius=3.0)
        points = fields["points"]
        begun = groom.do("stroke_begin", view=VIEW, x=points[0][0], y=points[0][1], ctrl=fields["ctrl"],
                         shift=fields["shift"], pressure=fields["pressure"])
        committed = False
        if begun["press"]:
            for point in points[1:]:
                if disturb and disturb.random() < 0.3:
                    cmd, bad = disturb.choice(BAD)
                    self.assertFalse(groom.ask(cmd, **bad)["ok"], cmd)
                groom.do("stroke_drag", points=[point])
            committed = groom.do("stroke_end")["committed"]
        if fields["selected"]:
            groom.do("selection_set", ids=[], softSelectRadius=0.0)
        return committed

    def action(self, rng, ids):
        """One of the things an artist may do to the guides `ids`."""
        draw = rng.random()
        if draw < 0.15:
            ids = rng.sample(ids, min(3, len(ids)))
            return ("edit", rng.choice([
                {"op": "freeze", "ids": ids}, {"op": "unfreeze", "ids": ids}, {"op": "unfreeze_all"},
                {"op": "set_attribute", "ids": ids, "attribute": "g", "value": 0.25},
                {"op": "generate_children", "group": "guides", "count": 1, "seed": rng.randrange(9)},
                {"op": "lock", "ids": ids}, {"op": "remove_layer", "name": "g"}]
                + [{"op": "delete_guides", "ids": ids[:1]}, {"op": "mirror_all", "fromPositive": rng.random() < 0.5}]
                * (rng.random() < 0.2)))
        x, y = rng.uniform(200, 440), rng.uniform(200, 400)
        points = [[x, y]]
        for _ in range(rng.randrange(4)):
            x, y = x + rng.uniform(-20, 20), y + rng.uniform(-20, 20)
            points.append([x, y])
        settings = {"radius": rng.choice([20, 60, 150])}
        tool = rng.choice(self.SHAPING if rng.random() < 0.6 else self.OTHERS)
        if draw < 0.25 or len(ids) < 15:  # guides made and taken away, about as many
            tool = "erase" if 15 <= len(ids) and rng.random() < len(ids) / 150 else rng.choice(["place", "draw"])
            settings.update(matchNeighbors=rng.random() < 0.7, soloNewGuides=rng.random() < 0.1)
        if tool == "paint":
            settings.update(rng.choice(self.MAPS), value=rng.random(), pointwise=rng.random() < 0.3)
        if tool == "flow" and rng.random() < 0.1:
            settings["flowSink"] = "whorl"
        if rng.random() < 0.3:
            settings["symmetry"] = rng.choice(["x", "y", "topology"])
        if tool in self.SHAPING:
            settings.update(propagate=rng.random() < 0.3, stretch=rng.random() < 0.3,
                            targets=rng.choice(["guides", "guides", "guides,parts,flow"]))
        selected = rng.sample(ids, min(6, len(ids))) if rng.random() < 0.1 else []
        settings["selectedOnly"] = bool(selected)
        return ("stroke", {"tool": tool, "settings": settings, "points": points, "selected": selected,
                           "ctrl": rng.random() < 0.2, "shift": rng.random() < 0.1 and len(points) > 1,
                           "pressure": rng.choice([1.0, 1.0, 0.5])})

    def makes_guides(self, action):
        kind, fields = action
        return fields["op"] in ("generate_children", "mirror_all") if kind == "edit" else fields["tool"] in ("place", "draw")

    def spend_ids(self, groom, last, wanted):
        """Makes guides and takes them back until the next id is `wanted`, from `last`, the last one given."""
        places = [[x, y] for y in range(390, 200, -30) for x in range(310, 350, 10)]
        while last + 1 < wanted:
            groom.do("tool_set", tool="draw", settings=self.PLAIN)
            begun = next(p for p in places if groom.do("stroke_begin", view=VIEW, x=p[0], y=p[1])["press"])
            self.assertTrue(groom.do("stroke_end")["committed"], begun)
            groom.do("undo")
            last += 1
        return last

    def memory(self):
        with open("/proc/%d/statm" % self.helper.process.pid) as statm:
            return int(statm.read().split()[1]) * 4096

    def test_a_long_session(self):
        rng, disturb = random.Random(SEED), random.Random(SEED + 1)
        kept, undone = [], []  # (action, the lowest id it gave)
        early = 0
        for step in range(STROKES):
            draw = rng.random()
            if draw < 0.2:
                if kept and self.groom.do("undo")["done"]:
                    undone.append(kept.pop())
            elif draw < 0.3:
                if undone:
                    self.assertTrue(self.groom.do("redo")["done"])
                    kept.append(undone.pop())
                else:
                    self.assertFalse(self.groom.do("redo")["done"])
            elif draw < 0.35:
                before = self.document() if step % 10 == 0 else None
                self.groom.do("tool_set", tool=rng.choice(self.SHAPING + self.OTHERS + ["place", "draw", "erase"]),
                              settings={**self.PLAIN, **rng.choice(self.MAPS)})
                self.groom.ask("stroke_begin", view=VIEW, x=rng.uniform(200, 440), y=rng.uniform(200, 400))
                self.groom.ask("stroke_drag", points=[[300, 300]])
                self.groom.do("stroke_cancel")
                if before:
                    self.assertEqual(self.document(), before)
            else:
                before = self.ids(self.groom)
                action = self.action(rng, sorted(before))
                state = self.groom.do("undo_state")
                if self.apply_or_fail(self.groom, action, disturb):
                    made = self.ids(self.groom) - before if self.makes_guides(action) else set()
                    kept.append((action, [i for i in sorted(made) if i < 2**53]))
                    undone = []
                else:
                    self.assertEqual(self.groom.do("undo_state"), state, action)
            if step == STROKES // 2:
                early = self.memory()
        replay = self.new_groom()
        last = len(COUNTS)
        for action, made in kept:
            if made:
                last = self.spend_ids(replay, last, made[0])
            self.assertTrue(self.apply_or_fail(replay, action), action)
            last = max([last, *made])
        self.assertEqual(self.ids(self.groom), self.ids(replay))
        ours, theirs = self.document(), self.document(replay)
        for part in ours:
            self.assertEqual(self.comparable(ours[part]), self.comparable(theirs[part]), part)
        self.assertGreater(len(kept), STROKES // 20)
        self.assertGreater(len(ours["texts"]["guideData"]), 5000)
        if STROKES >= 2000:
            self.assertLess(self.memory() - early, 64 << 20)
        pid = self.helper.process.pid
        self.helper.finish()
        self.assertEqual(regions_of(pid), [])

    def apply_or_fail(self, groom, action, disturb=None):
        """Some actions cannot be done by then (a layer is gone): they change nothing."""
        try:
            return self.apply(groom, action, disturb)
        except AssertionError as error:
            reply = error.args[0] if error.args else None
            if not (isinstance(reply, dict) and reply.get("error", {}).get("code") in ("state", "not_found")):
                raise
            groom.do("selection_set", ids=[], softSelectRadius=0.0)
            return False

    @staticmethod
    def comparable(part):
        """Without the session's number in the paths of images, and groups numbered as they stand: the
        numbers of groups that an undo takes away are not given again either."""
        part = dict(part)
        if part.get("guideData"):
            guides = json.loads(part["guideData"])
            number = {group["id"]: i for i, group in enumerate(guides["groups"], 1)}
            for group in guides["groups"]:
                group["id"], group["parent"] = number[group["id"]], number.get(group["parent"], 0)
            for guide in guides["guides"]:
                guide["group"] = number[guide["group"]]
            part["guideData"] = guides
        return re.sub(r"_s\d+maps_", "_maps_", json.dumps(part, sort_keys=True))


if __name__ == "__main__":
    unittest.main()
