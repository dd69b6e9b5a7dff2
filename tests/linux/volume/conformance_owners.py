"""Modes, owners, groups, access lists and sticky directories: who may do what, and what is lost."""

import itertools
import mmap
import os
import struct

from sites import ALICE, BOB, FRIENDS, KINDS, ROOT, STRANGERS, fallocate, madeBy, removed, renameAt

SET_IDS = [0o4711, 0o2711, 0o2701, 0o6755, 0o6644, 0o6777]


def changing_modes(site):
    for kind in KINDS:
        for mode in (0, 0o111, 0o644, 0o1777, 0o2755, 0o4755, 0o7777, 0o6000):
            name = site.make(kind)
            site.note(f"{kind} {mode:o} by root", os.chmod, name, mode)
            site.facts(name)
    for kind, (owner, group), mode in itertools.product(
            KINDS[:-1], ((ALICE, ALICE), (ALICE, FRIENDS), (ALICE, STRANGERS), (BOB, FRIENDS)),
            (0o644, 0o1755, 0o2755, 0o2644, 0o6777)):
        name = site.make(kind, owner=owner, group=group)
        with site.as_(ALICE, groups=[FRIENDS]):
            site.note(f"{kind} of {owner}:{group} to {mode:o} by a user", os.chmod, name, mode)
        site.facts(name)


def changing_modes_through_links(site):
    name = site.file(mode=0o644, owner=ALICE, group=ALICE)
    os.symlink(name, "link")
    with site.as_(ALICE):
        site.note("owner of the target", os.chmod, "link", 0o600)
    with site.as_(BOB):
        site.note("another", os.chmod, "link", 0o666)
    site.facts(name)
    site.facts("link")
    with site.open(name, os.O_RDONLY) as fd:
        site.note("of an open file", os.fchmod, fd, 0o4751)
    site.facts(name)


def changing_owners(site):
    targets = [(-1, -1), (ALICE, -1), (BOB, -1), (-1, ALICE), (-1, FRIENDS), (-1, STRANGERS),
               (ALICE, FRIENDS), (BOB, FRIENDS), (70_000, 80_000)]
    for kind, mode, (user, group) in itertools.product(KINDS, (0o644, 0o6755, 0o2745), targets):
        for who in (ROOT, ALICE, BOB):
            name = site.make(kind, owner=ALICE, group=ALICE, mode=mode)
            with site.as_(who, groups=[FRIENDS]):
                site.note(f"{kind} {mode:o} to {user}:{group} by {who}", os.lchown, name, user,
                          group)
            site.facts(name)


def changing_owners_through_links(site):
    for who, user, group in itertools.product((ROOT, ALICE, BOB), (-1, ALICE, BOB), (-1, FRIENDS)):
        name = site.file(owner=ALICE, group=ALICE, mode=0o6755)
        link = site.fresh()
        os.symlink(name, link)
        with site.as_(who, groups=[FRIENDS]):
            site.note(f"to {user}:{group} by {who}", os.chown, link, user, group)
        site.facts(name)
        site.facts(link)


def writing_takes_set_ids_away(site):
    def write(name):
        with site.open(name, os.O_WRONLY) as fd:
            os.write(fd, b"x")
            site.facts(name, "while it is open")

    def append(name):
        with site.open(name, os.O_WRONLY | os.O_APPEND) as fd:
            os.write(fd, b"x")

    def writeNothing(name):
        with site.open(name, os.O_WRONLY) as fd:
            os.write(fd, b"")

    def truncateOpen(name):
        with site.open(name, os.O_WRONLY) as fd:
            os.ftruncate(fd, 2)

    def allocate(mode):
        def work(name):
            with site.open(name) as fd:
                fallocate(fd, mode, 0, 9000)
        return work

    def direct(name):
        with site.open(name, os.O_WRONLY | os.O_DIRECT) as fd, mmap.mmap(-1, 4096) as block:
            os.pwritev(fd, [block], 0)

    works = {
        "write": write, "append": append, "write nothing": writeNothing,
        "truncate": lambda name: os.truncate(name, 1), "same size": lambda name: os.truncate(name, 4),
        "ftruncate": truncateOpen,
        "open to truncate": lambda name: os.close(os.open(name, os.O_WRONLY | os.O_TRUNC)),
        "reserve": allocate(0), "reserve keeping the size": allocate(1), "punch": allocate(3),
        "zero": allocate(16), "direct": direct,
    }
    for (label, work), mode, who in itertools.product(works.items(), SET_IDS + [0o2777, 0o2767],
                                                      (ROOT, ALICE, BOB)):
        name = site.file(b"1234", mode=mode | 0o066, owner=ALICE, group=FRIENDS)
        with site.as_(who):
            site.note(f"{label} {mode:o} by {who}", work, name)
        site.facts(name)


def creating_below_folders_of_groups(site):
    for mode, group in itertools.product((0o777, 0o2777, 0o3777), (ROOT, FRIENDS, STRANGERS)):
        folder = site.folder(mode=mode, group=group)
        for kind, umask, wanted in itertools.product(
                ("regular", "directory", "fifo"), (0, 0o022, 0o077), (0o777, 0o2755, 0o2644, 0o6777)):
            name = f"{folder}/{site.fresh()}"
            before = os.umask(umask)
            make = {"regular": lambda: os.close(os.open(name, os.O_CREAT | os.O_EXCL, wanted)),
                    "directory": lambda: os.mkdir(name, wanted),
                    "fifo": lambda: os.mkfifo(name, wanted)}[kind]
            with site.as_(ALICE, groups=[FRIENDS]):
                site.note(f"{kind} {wanted:o} in {mode:o} of {group}, umask {umask:o}", make)
            os.umask(before)
            site.facts(name)
        with site.as_(ALICE):
            site.note("symlink", os.symlink, "x", f"{folder}/link")
        site.facts(f"{folder}/link")


def access(site):
    """Every kind of use of an entry, by owner, group and others, for each permission bit."""
    for kind, mode in itertools.product(("regular", "directory"),
                                        [bit << shift for shift in (0, 3, 6) for bit in range(8)]):
        name = site.make(kind, owner=ALICE, group=FRIENDS)
        if kind == "directory":
            site.make("regular", f"{name}/inner", owner=ALICE, mode=0o666)
        os.chmod(name, mode)
        for user, groups in ((ROOT, ()), (ALICE, [FRIENDS]), (BOB, [FRIENDS]), (BOB, [STRANGERS])):
            with site.as_(user, groups=groups):
                label = f"{kind} {mode:o} by {user} {groups}"
                for wish in (os.R_OK, os.W_OK, os.X_OK):
                    site.note(f"{label} access {wish}", os.access, name, wish, effective_ids=True)
                for flags in (os.O_RDONLY, os.O_WRONLY, os.O_RDWR, os.O_PATH):
                    site.note(f"{label} open {flags}",
                              lambda: os.close(os.open(name, flags)))
                if kind == "regular":
                    site.note(f"{label} truncate", os.truncate, name, 0)
                    continue
                site.note(f"{label} list", os.listdir, name)
                site.note(f"{label} inner", lambda: os.lstat(f"{name}/inner").st_uid)
                for kind_ in ("regular", "directory", "fifo", "symlink"):
                    site.note(f"{label} {kind_}", madeAndRemoved, kind_, f"{name}/new")
                site.note(f"{label} link", os.link, f"{name}/inner", f"{name}/linked")
                site.note(f"{label} rename", os.rename, f"{name}/inner", f"{name}/renamed")
                site.note(f"{label} back", os.rename, f"{name}/renamed", f"{name}/inner")
                site.note(f"{label} unlink", os.unlink, f"{name}/linked")


def madeAndRemoved(kind, name):
    madeBy(kind, name)
    removed(name)


def sticky_removal(site):
    for kind, (owner, sticky), mode in itertools.product(
            KINDS, itertools.product((ROOT, ALICE, BOB), repeat=2), (0o1777, 0o777, 0o1755)):
        folder = site.folder(mode=mode, owner=sticky)
        name = site.make(kind, f"{folder}/entry", owner=owner)
        remove = os.rmdir if kind == "directory" else os.unlink
        with site.as_(ALICE):
            site.note(f"{kind} of {owner} in {mode:o} of {sticky}", remove, name)
        site.note("left", os.listdir, folder)


def sticky_renames(site):
    owners = (ROOT, ALICE, BOB)
    for kind, over, owner, sticky, overOwner in itertools.product(
            KINDS, ["nothing"] + KINDS, owners, owners, owners):
        if over == "nothing" and overOwner != ROOT:
            continue
        label = f"{kind} of {owner} over {over} of {overOwner}, sticky of {sticky}"
        for direction in ("out", "in", "within"):
            one = site.folder(mode=0o1777, owner=sticky)
            other = site.folder(mode=0o777, owner=ALICE)
            source, target = {"out": (one, other), "in": (other, one), "within": (one, one)}[direction]
            name = site.make(kind, f"{source}/entry", owner=owner)
            if over != "nothing":
                site.make(over, f"{target}/target", owner=overOwner)
            with site.as_(ALICE):
                site.note(f"{direction} {label}", os.rename, name, f"{target}/target")
            site.note(f"{direction} {label}: after",
                      lambda: (sorted(os.listdir(source)), sorted(os.listdir(target))))


def exchanging_in_sticky_folders(site):
    for owner, other, sticky in itertools.product((ROOT, ALICE, BOB), repeat=3):
        folder = site.folder(mode=0o1777, owner=sticky)
        for kinds in (("regular", "directory"), ("directory", "directory"), ("regular", "symlink")):
            one = site.make(kinds[0], f"{folder}/{site.fresh()}", owner=owner)
            two = site.make(kinds[1], f"{folder}/{site.fresh()}", owner=other)
            with site.as_(ALICE):
                site.note(f"{kinds} of {owner}, {other} in one of {sticky}", renameAt, one, two, 2)
            site.facts(one)


def linking_needs_no_ownership_of_ones_own(site):
    for kind, mode, owner in itertools.product(KINDS, (0o600, 0o666, 0o4777), (ALICE, BOB)):
        name = site.make(kind, owner=owner, mode=mode)
        folder = site.folder(mode=0o777)
        with site.as_(ALICE):
            site.note(f"{kind} {mode:o} of {owner}", os.link, name, f"{folder}/link",
                      follow_symlinks=False)
        site.facts(name)


def making_devices_needs_root(site):
    folder = site.folder(mode=0o777)
    for user, kind in itertools.product((ROOT, ALICE), (0o020000, 0o060000, 0o010000, 0o140000,
                                                        0o100000, 0)):
        for device in (os.makedev(1, 3), os.makedev(300, 70_000), 0):
            name = f"{folder}/{site.fresh()}"
            with site.as_(user):
                site.note(f"{kind:o} {device} by {user}", os.mknod, name, kind | 0o644, device)
            site.facts(name)


# Access control lists.

def accessList(*entries):
    return struct.pack("<I", 2) + b"".join(struct.pack("<HHi", *entry) for entry in entries)


USER, NAMED, GROUP, NAMED_GROUP, MASK, OTHER = 1, 2, 4, 8, 16, 32
LISTS = {
    "minimal": accessList((USER, 6, -1), (GROUP, 4, -1), (OTHER, 0, -1)),
    "named": accessList((USER, 7, -1), (NAMED, 6, BOB), (GROUP, 5, -1), (MASK, 7, -1),
                        (OTHER, 1, -1)),
    "masked": accessList((USER, 7, -1), (NAMED, 7, BOB), (GROUP, 7, -1),
                         (NAMED_GROUP, 7, FRIENDS), (MASK, 4, -1), (OTHER, 0, -1)),
    "without a mask": accessList((USER, 7, -1), (NAMED, 7, BOB), (GROUP, 7, -1), (OTHER, 0, -1)),
    "disordered": accessList((OTHER, 7, -1), (USER, 7, -1), (GROUP, 7, -1)),
    "twice": accessList((USER, 7, -1), (USER, 7, -1), (GROUP, 7, -1), (OTHER, 0, -1)),
    "empty": accessList(), "nothing": b"", "short": b"\2\0\0\0\1\0", "old": b"\1\0\0\0",
}
ACCESS, DEFAULT = "system.posix_acl_access", "system.posix_acl_default"


def lists(name):
    return {each: os.getxattr(name, each, follow_symlinks=False)
            for each in os.listxattr(name, follow_symlinks=False)}


def setting_access_lists(site):
    for kind, which, (label, value), who in itertools.product(
            KINDS, (ACCESS, DEFAULT), LISTS.items(), (ROOT, ALICE, BOB)):
        for group in (ALICE, STRANGERS):
            name = site.make(kind, owner=ALICE, group=group, mode=0o2755)
            with site.as_(who):
                site.note(f"{label} {which} on {kind} of group {group} by {who}", os.setxattr, name,
                          which, value, follow_symlinks=False)
            site.facts(name)
            site.note("lists", lists, name)


def access_lists_follow_modes(site):
    for (label, value), mode in itertools.product(LISTS.items(), (0, 0o640, 0o777, 0o4711)):
        name = site.file(owner=ALICE, group=ALICE, mode=0o644)
        site.note(f"{label} set", os.setxattr, name, ACCESS, value)
        site.note(f"then {mode:o}", os.chmod, name, mode)
        site.facts(name)
        site.note("list", lists, name)
        with site.as_(BOB, groups=[FRIENDS]):
            for flags in (os.O_RDONLY, os.O_WRONLY):
                site.note(f"open {flags}", lambda: os.close(os.open(name, flags)))
        site.note("removed", os.removexattr, name, ACCESS)
        site.facts(name)


def inheriting_access_lists(site):
    for (label, value), umask, mode in itertools.product(LISTS.items(), (0, 0o077),
                                                         (0o777, 0o640, 0o2755, 0)):
        folder = site.folder(mode=0o2777, group=FRIENDS)
        site.note(f"{label} set", os.setxattr, folder, DEFAULT, value)
        before = os.umask(umask)
        names = [f"{folder}/{kind}" for kind in ("file", "folder", "fifo", "link", "special")]
        with site.as_(ALICE, groups=[FRIENDS]):
            site.note("file", lambda: os.close(os.open(names[0], os.O_CREAT, mode)))
            site.note("folder", os.mkdir, names[1], mode)
            site.note("fifo", os.mkfifo, names[2], mode)
            site.note("link", os.symlink, "x", names[3])
            site.note("special", os.mknod, names[4], mode | 0o140000)
        os.umask(before)
        for name in names:
            site.facts(name, f"{umask:o} {mode:o}")
            site.note(f"lists of {name}", lists, name)
        site.note("removed", os.removexattr, folder, DEFAULT)
        site.note("left", lists, folder)


CASES = [changing_modes, changing_modes_through_links, changing_owners,
         changing_owners_through_links, writing_takes_set_ids_away,
         creating_below_folders_of_groups, access, sticky_removal, sticky_renames,
         exchanging_in_sticky_folders, linking_needs_no_ownership_of_ones_own,
         making_devices_needs_root, setting_access_lists, access_lists_follow_modes,
         inheriting_access_lists]
