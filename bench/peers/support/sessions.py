"""Sessions of games, and which of them are held out from an order that others are trained for.

The list and the rounds stood before the order was tuned by them. Of each game there are as many sessions as a small
publisher may trace: other levels, episodes, heroes, menus and saves. Each session is held out in just one round, with
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
    """`files` are those that its folder is made of, with their names there. `walk` has keys, the shortest and the
    longest time for which each is held. `frame`: which picture is the first one, after those that say that it loads."""

    name: str
    files: list
    words: list
    walk: list
    sessions: list
    frame: int = 1


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
    Session("long: new story", walk=20, seconds=LONG_S,
            keys={4: "Return", 6: "Return", 12: "Escape", 17: "Return", 120: "Escape", 121: "Up Return", 126: "Right",
                  130: "Return"}),
    Session("long: contributed levels", seconds=LONG_S, walk=24,
            keys={4: "Return", 6: "Down Return", 9: "Return", 14: "Return", 20: "Return", 110: "Escape",
                  111: "Up Return", 116: "Escape", 117: "Up Return", 122: "Down Down Return", 128: "Return",
                  134: "Return"}),
]  # fmt: skip

# -- flare
# Neverball was tried before. It reads 1 to 3 MB of its 112 until the first frame, and takes longer to draw that without
# a graphics card than to download it. So its figures are those of the machine.

FLARE = "/usr/share/games/flare"


def hero(place, portrait, head, role):
    """The save of a hero who stands there: a map and the two numbers of a place on it."""
    save = f"""name=Tux
permadeath=0
option={portrait[:-2]},{head},images/portraits/{portrait}.png
class={role},
xp=0
hpmp=0,0
build=1,1,1,1
equipped=4,5,6,7,8,11
equipped_quantity=1,1,1,1,1,1
spawn=maps/{place[0]}.txt,{place[1]},{place[2]}
"""
    return {"flare/settings.txt": "move_type_dimissed=1\n", "flare/saves/empyrean/1/avatar.txt": save}


def quest(name, x, y, portrait="male01", head="head_short", role="Brute", title="", seconds=SHORT_S):
    files = hero((name, x, y), portrait, head, role)
    return Session(title or name, ["--load-slot=1"], walk=3, files=files, seconds=seconds)


WOMAN = {"portrait": "female03", "head": "head_long"}
FLARE_SESSIONS = [
    quest("perdition_harbor", 2, 24),
    quest("goblin_cave", 18, 46, **WOMAN, role="Scout"),
    quest("dilapidated_sewers", 64, 8, portrait="male12", head="head_bald"),
    quest("stormrock_pass", 24, 81, role="Adept"),
    quest("lake_kuuma", 26, 28, **WOMAN),
    quest("black_oak_city", 98, 50, portrait="male07", role="Scout"),
    quest("temple_of_mez_3", 26, 31, **WOMAN, role="Adept"),
    quest("underworld", 67, 47, portrait="male14", head="head_bald"),
    quest("nazia_mines", 33, 57, role="Scout"),
    quest("wizards_tower_3", 4, 7, portrait="female09", head="head_long", role="Adept"),
    Session("menu, new game", files={"flare/settings.txt": "move_type_dimissed=1\n"}, walk=24,
            keys={3: "Down Return", 6: "Down Return", 9: "Down Down Return", 12: "Return", 16: "Return"}),
    quest("hyperspace", 12, 12, portrait="male20"),
    quest("arrival", 20, 20, title="long: arrival", seconds=LONG_S),
    quest("merrimead_swamp", 3, 17, **WOMAN, role="Scout", title="long: merrimead_swamp", seconds=LONG_S),
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
    Game("flare",
         [("/usr/games/flare", "game"), (FLARE, "data")],
         ["--data-path={}/data/"],
         [("d", 0.3, 2), ("s", 0.3, 2), ("a", 0.3, 2), ("w", 0.3, 2), ("space", 0.1, 0.3), ("e", 0.1, 0.1)],
         FLARE_SESSIONS, frame=20),
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
