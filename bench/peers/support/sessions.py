"""Sessions of games, and which of them are held out from an order that others are trained for.

The list and the rounds stood before the order was tuned by them. Of each game there are as many sessions as a small
publisher may trace: other levels, episodes, balls, menus and saves. Each session is held out in just one round, with
one or two others. The rounds and the order of training are those of a shuffle that is seeded with the game's name.
"""

import random
from typing import NamedTuple

SHORT_S, LONG_S = 40, 300  # from the start of the game
N_HELD = 3  # in a round
TRAINED = (1, 3, 6, 11)  # sessions; each number takes those of the one before, and more


class Session(NamedTuple):
    """`words` are arguments; {} in them is the game's folder. `keys` are pressed so many seconds after the first frame,
    and from `walk` on steps of the game's walk whenever no others are. `before` is played from a local folder first,
    with the same home, and leaves a save there. `files` are put into the home before all that."""

    name: str
    words: list = []
    keys: dict = {}
    walk: float | None = None
    seconds: float = SHORT_S
    before: "Session | None" = None
    files: dict = {}


class Game(NamedTuple):
    """`files` are those that its folder is made of, with their names there. `walk` has keys, the shortest and the longest
    time for which each is held."""

    name: str
    files: list
    words: list
    walk: list
    sessions: list


# -- doom

DOOM = "/usr/share/games/doom/"
FREEDOOM1, FREEDOOM2 = ["-iwad", "{}/freedoom1.wad"], ["-iwad", "{}/freedoom2.wad"]
SAVE = {3: "F6", 4: "Return", 4.5: "a", 5: "Return"}


def warp(wad, *place, skill):
    return [*wad, "-warp", *map(str, place), "-skill", str(skill)]


def typed(text):
    return " ".join(text)


DOOM_SESSIONS = [
    Session("demo 1 of 1", [*FREEDOOM1, "-playdemo", "demo1"]),
    Session("demo 3 of 1", [*FREEDOOM1, "-playdemo", "demo3"]),
    Session("demo 2 of 2", [*FREEDOOM2, "-playdemo", "demo2"]),
    Session("E1M1", warp(FREEDOOM1, 1, 1, skill=2), walk=2),
    Session("E2M4", warp(FREEDOOM1, 2, 4, skill=4), walk=2),
    Session("E3M6", warp(FREEDOOM1, 3, 6, skill=3), walk=2),
    Session("E4M2, then E4M3", warp(FREEDOOM1, 4, 2, skill=4), keys={20: typed("idclev43")}, walk=2),
    Session("MAP01", warp(FREEDOOM2, 1, skill=2), walk=2),
    Session("MAP12", warp(FREEDOOM2, 12, skill=3), walk=2),
    Session("MAP21", warp(FREEDOOM2, 21, skill=4), walk=2),
    Session("title and menu of 1", FREEDOOM1, keys={3: "Escape Down Return", 6: "Escape Escape", 9: "F1 Escape",
                                                   12: "Escape Return Down Return Return"}, walk=16),  # fmt: skip
    Session("save in MAP16", [*FREEDOOM2, "-loadgame", "0"], walk=3,
            before=Session("", warp(FREEDOOM2, 16, skill=3), keys=SAVE, walk=6, seconds=10)),
    Session("long: episode 1", warp(FREEDOOM1, 1, 2, skill=2), walk=2, seconds=LONG_S,
            keys={50: typed("idclev13"), 100: typed("idclev14"), 150: typed("idclev15"), 200: typed("idclev16"),
                  250: typed("idclev17")}),
    Session("long: demos of 2", FREEDOOM2, seconds=LONG_S),
]  # fmt: skip

# -- supertux

TUX = "/usr/share/games/supertux2"


def level(name, **more):
    return Session(name, ["{}/data/levels/" + name + ".stl"], walk=3, **more)


STORY = {4: "Return", 6: "Return", 10: "Escape", 15: "Return"}
TUX_SESSIONS = [
    Session("menu, new story", keys={4: "Return", 6: "Return", 18: "Escape", 23: "Return"}, walk=26),
    Session("save, its story", keys={4: "Return", 6: "Return", 10: "Down", 14: "Return"}, walk=18,
            before=Session("", keys=STORY, walk=18, seconds=25)),
    Session("world map 2", ["{}/data/levels/world2/worldmap.stwm"], keys={4: "Up Up Return"}, walk=8),
    level("world1/frosted_fields"),
    level("world1/castle_of_nolok"),
    level("world2/welcome_forest"),
    level("world2/ghostly_misery"),
    level("bonus1/torfi-level2"),
    level("bonus2/level12"),
    level("bonus3/crystal_beauty"),
    level("bonus4/Spooky_Mansion"),
    level("revenge_in_redmond/redmond_headquarters"),
    Session("long: new story", keys={4: "Return", 6: "Return", 12: "Escape", 17: "Return", 120: "Escape", 121: "Up Return",
                                     126: "Right", 130: "Return"}, walk=20, seconds=LONG_S),
    Session("long: contributed levels", seconds=LONG_S, walk=24,
            keys={4: "Return", 6: "Down Return", 9: "Return", 14: "Return", 20: "Return", 110: "Escape", 111: "Up Return",
                  116: "Escape", 117: "Up Return", 122: "Down Down Return", 128: "Return", 134: "Return"}),
]  # fmt: skip

# -- neverball

BALLS = "/usr/share/games/neverball"


def player(ball="basic-ball"):
    return {".neverball/neverballrc": f"player                    Tux\nball_file                 ball/{ball}/{ball}\n"}


def course(name, ball="basic-ball"):
    return Session(name, ["-l", f"map-{name}.sol"], keys={3: "Return"}, walk=4, files=player(ball))


BALL_SESSIONS = [
    course("easy/coins"),
    course("easy/mazebump", "earth"),
    course("medium/islands"),
    course("medium/plinko", "lava"),
    course("hard/movers"),
    course("hard/airways", "saturn"),
    course("mym/descent"),
    course("mym2/rainbow", "eyeball"),
    course("fwp/inferno"),
    course("tones/city", "octocat"),
    Session("menus", keys={3: "Up Down Down Return", 7: "Escape", 9: "Up Up Up Down Down Down Return", 13: "Down Return",
                           17: "Escape", 20: "Up Up Up Up Return", 24: "Down Return"}, files=player()),
    Session("first set", keys={3: "Up Return", 6: "Return", 9: "Return", 12: "Return"}, walk=14, files=player("melon")),
    Session("long: first set", keys={3: "Up Return", 6: "Return", 9: "Return", 12: "Return", 100: "Escape",
                                     102: "Escape", 104: "Escape", 106: "Right Return", 110: "Return"},
            walk=14, seconds=LONG_S, files=player("ufo")),
    Session("long: fourth set", keys={3: "Up Return", 6: "Down Down Down Return", 9: "Return", 12: "Return"}, walk=14,
            seconds=LONG_S, files=player("reactor")),
]  # fmt: skip

GAMES = [
    Game("doom",
         [("/usr/games/chocolate-doom", "game"), (DOOM + "freedoom1.wad", "freedoom1.wad"),
          (DOOM + "freedoom2.wad", "freedoom2.wad")],
         ["-window"],
         [("Up", 0.3, 2), ("Up", 0.3, 2), ("Left", 0.1, 0.6), ("Right", 0.1, 0.6), ("Control_L", 0.1, 0.4),
          ("space", 0.1, 0.1)],
         DOOM_SESSIONS),
    Game("supertux",
         [("/usr/games/supertux2", "game"), (TUX, "data")],
         ["--renderer", "sdl", "--datadir", "{}/data"],
         [("Right", 0.5, 3), ("Right", 0.5, 3), ("space", 0.1, 0.6), ("space", 0.1, 0.6), ("Left", 0.1, 0.5),
          ("Control_L", 0.1, 0.3)],
         TUX_SESSIONS),
    Game("neverball",
         [("/usr/games/neverball", "game"), (BALLS, "data")],
         ["-d", "{}/data"],
         [("Up", 0.2, 1.5), ("Up", 0.2, 1.5), ("Left", 0.1, 0.5), ("Right", 0.1, 0.5), ("Down", 0.1, 0.3),
          ("Return", 0.1, 0.1)],
         BALL_SESSIONS),
]  # fmt: skip


def rounds(game):
    """For each round the names of the sessions that are held out, and those of the others in the order of training."""
    names = [session.name for session in game.sessions]
    random.Random(f"{game.name} held out").shuffle(names)
    for first in range(0, len(names), N_HELD):
        held = names[first : first + N_HELD]
        others = [session.name for session in game.sessions if session.name not in held]
        random.Random(f"{game.name} round {first // N_HELD}").shuffle(others)
        yield held, others
