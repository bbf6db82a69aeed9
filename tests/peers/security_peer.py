"""Security descriptors between the library and Samba, both ways, and damaged ones.

The library's side is a role of the test program; it says there how a descriptor is put in words.
"""

import random
import subprocess

from common import FOLDER, LOADER, check, finish

from samba.dcerpc import security
from samba.ndr import ndr_pack, ndr_unpack

COUNT = 500
DAMAGED = 10_000

# Accounts that every system knows.
SIDS = (["S-1-1-0", "S-1-2-0", "S-1-3-0", "S-1-3-1"]
        + [f"S-1-5-{n}" for n in (1, 2, 3, 4, 6, 7, 8, 9, 10, 11, 12, 13, 14, 18, 19, 20)]
        + [f"S-1-5-32-{n}" for n in (544, 545, 546, 547, 551, 555)] + ["S-1-5-64-10", "S-1-5-21-0-0-0-1000"])
TYPES = (security.SEC_ACE_TYPE_ACCESS_ALLOWED, security.SEC_ACE_TYPE_ACCESS_DENIED, security.SEC_ACE_TYPE_SYSTEM_AUDIT)
# The bits that a descriptor carries for others: defaults, inheritance, protection.
CARRIED = (security.SEC_DESC_OWNER_DEFAULTED, security.SEC_DESC_GROUP_DEFAULTED, security.SEC_DESC_DACL_DEFAULTED,
           security.SEC_DESC_SACL_DEFAULTED, security.SEC_DESC_DACL_AUTO_INHERITED, security.SEC_DESC_SACL_AUTO_INHERITED,
           security.SEC_DESC_DACL_PROTECTED, security.SEC_DESC_SACL_PROTECTED)


def ask(questions):
    command = [LOADER, f"{FOLDER}/velox_tests.exe", "--role=security-peer"]
    result = subprocess.run(command, input="\n".join(questions) + "\n", capture_output=True, text=True, timeout=600)
    answers = result.stdout.splitlines()
    good = result.returncode == 0 and len(answers) == len(questions)
    check(f"{len(questions)} questions are answered", good,
          f"{len(answers)} answers, exit code {result.returncode}, {answers[-1:]} {result.stderr[-500:]}")
    return answers if good else []


def random_entries(types):
    """Entries TYPE, FLAGS, MASK, SID; no two of the same type and account."""
    keys = random.sample([(type, sid) for type in types for sid in SIDS], random.choice((0, 1, 2, 5, 20)))
    return [(type, random.choice((0, 0x0B, random.randrange(256))), random.getrandbits(32), sid) for type, sid in keys]


def random_list(types):
    return random.choice(("absent", "null", *[random_entries(types)] * 4))


def random_words():
    """Owner, group, control bits, lists."""
    owner, group = (random.choice([None] + SIDS) for _ in range(2))
    dacl, sacl = random_list(TYPES[:2]), random_list(TYPES[2:])
    control = security.SEC_DESC_SELF_RELATIVE | sum(bit for bit in CARRIED if random.getrandbits(1))
    control |= (dacl != "absent") * security.SEC_DESC_DACL_PRESENT | (sacl != "absent") * security.SEC_DESC_SACL_PRESENT
    return owner, group, control, dacl, sacl


def in_words(owner, group, control, dacl, sacl):
    def words(entries):
        return entries if isinstance(entries, str) else "".join("%d,%d,%d,%s;" % entry for entry in entries) + "end"
    return f"{owner or '-'} {group or '-'} {control} {words(dacl)} {words(sacl)}"


def samba_write(owner, group, control, dacl, sacl):
    descriptor = security.descriptor()
    descriptor.owner_sid = owner and security.dom_sid(owner)
    descriptor.group_sid = group and security.dom_sid(group)
    descriptor.dacl, descriptor.sacl = samba_list(dacl), samba_list(sacl)
    descriptor.type = control
    return ndr_pack(descriptor)


def samba_list(entries):
    if isinstance(entries, str):
        return None
    acl = security.acl()
    acl.revision = security.SECURITY_ACL_REVISION_NT4
    aces = []
    for type, flags, mask, sid in entries:
        ace = security.ace()
        ace.type, ace.flags, ace.access_mask, ace.trustee = type, flags, mask, security.dom_sid(sid)
        aces.append(ace)
    acl.aces, acl.num_aces = aces, len(aces)
    return acl


def samba_read(data):
    descriptor = ndr_unpack(security.descriptor, data, allow_remaining=True)

    def entries(acl, present):
        if not descriptor.type & present:
            return "absent"
        return "null" if acl is None else [(a.type, a.flags, a.access_mask, str(a.trustee)) for a in acl.aces or []]

    return (descriptor.owner_sid and str(descriptor.owner_sid), descriptor.group_sid and str(descriptor.group_sid),
            descriptor.type, entries(descriptor.dacl, security.SEC_DESC_DACL_PRESENT),
            entries(descriptor.sacl, security.SEC_DESC_SACL_PRESENT))


def samba_read_if_good(data):
    try:
        return samba_read(data)
    except RuntimeError:  # it is strict in other points
        return None


def kept(owner, group, control, dacl, sacl):
    """What is left when a list refuses entries of foreign types and second ones of an account."""
    def keep(entries, types):
        first = {(entry[0], entry[3]): entry for entry in reversed(entries) if entry[0] in types}
        return [entry for entry in entries if entry is first.get((entry[0], entry[3]))]
    return (owner, group, control, dacl if isinstance(dacl, str) else keep(dacl, TYPES[:2]),
            sacl if isinstance(sacl, str) else keep(sacl, TYPES[2:]))


def damaged(data):
    """A few bytes changed, often where lengths, counts and offsets stand; sometimes a part missing or added."""
    data = bytearray(data)
    for _ in range(random.choice((1, 1, 2, 5))):
        place = random.randrange(random.choice((20, len(data), len(data), len(data))))
        match random.randrange(3):
            case 0: data[place] ^= 1 << random.randrange(8)
            case 1: data[place] = random.choice((0, 1, 4, 0x7F, 0x80, 0xFF))
            case 2: data[place] = random.randrange(256)
    match random.randrange(8):
        case 0: del data[random.randrange(len(data)):]
        case 1: data += random.randbytes(random.randrange(20))
    return bytes(data)


def main():
    random.seed(41)
    known = [sid for sid, answer in zip(SIDS, ask([f"write {sid} - 0 absent absent" for sid in SIDS]))
             if not answer.startswith("refused")]
    check(f"{len(known)} of {len(SIDS)} accounts are known here", len(known) > 20, known)
    SIDS[:] = known

    ours = [random_words() for _ in range(COUNT)]
    # The bits that tell of lists and form are the library's own affair.
    told = [(o, g, c & sum(CARRIED), d, s) for o, g, c, d, s in ours]
    written = ask(["write " + in_words(*words) for words in told])
    wrong = [in_words(*words) for words, data in zip(ours, written) if samba_read(bytes.fromhex(data)) != words]
    check(f"Samba reads {len(written)} descriptors of ours", written and not wrong, wrong[:3])

    theirs = [random_words() for _ in range(COUNT)]
    packed = [samba_write(*words) for words in theirs]
    read = ask(["read " + data.hex() for data in packed])
    wrong = [(in_words(*words), got) for words, got in zip(theirs, read) if got != in_words(*words)]
    check(f"{len(read)} descriptors of Samba's are read", read and not wrong, wrong[:3])

    sources = packed + [bytes.fromhex(data) for data in written]
    blocks = [damaged(random.choice(sources)) for _ in range(DAMAGED)]
    answers = ask(["read " + data.hex() for data in blocks])
    refused = [answer for answer in answers if answer.startswith("refused: ")]
    check(f"{len(answers)} damaged ones: {len(refused)} refused, {len(answers) - len(refused)} extracted",
          DAMAGED // 10 < len(refused) < DAMAGED)
    both = [(answer, in_words(*kept(*words))) for data, answer in zip(blocks, answers)
            if not answer.startswith("refused: ") and (words := samba_read_if_good(data))]
    wrong = [pair for pair in both if pair[0] != pair[1]]
    check(f"Samba reads {len(both)} of those, and reads them alike", both and not wrong, wrong[:3])
    finish()


if __name__ == "__main__":
    main()
