"""Explores every interleaving of a few threads over shared variables, breadth first.

A thread is a list of instructions, each a function of the state (a dictionary of its own to change). What it returns says
what happens: nothing, the thread goes on; the name of a label, it goes on there; BLOCKED, it cannot run now and the state
stays as it was. A list of functions is a choice: each of them is tried. A text is a label. A thread that runs behind its
last instruction has ended.

Every instruction is one atomic step, so what the library does under a lock stands between lock() and unlock() or in one
instruction. A state is bad when an instruction says so with fail(), when an invariant does not hold, or when nobody can run
and a thread that has to end has not."""

from collections import deque

BLOCKED = object()


class Bad(Exception):
    pass


def fail(why):
    raise Bad(why)


# ---- Locks and conditions ----


def lock(name):
    def step(s):
        if s[name]:
            return BLOCKED
        s[name] = True

    return step


def unlock(name):
    def step(s):
        s[name] = False

    return step


def wait(condition, mutex, me):
    """Two instructions: leaving the lock, and coming back with it once signalled."""

    def sleep(s):
        s[condition] = s[condition] | {me}
        s[mutex] = False

    def wake(s):
        if me in s[condition] or s[mutex]:
            return BLOCKED
        s[mutex] = True

    return [sleep, wake]


def broadcast(s, condition):
    s[condition] = frozenset()


def goto(label):
    return lambda s: label


def unless(test, label):
    return lambda s: None if test(s) else label


# ---- Exploration ----


class Program:
    def __init__(self, instructions):
        self.code = []
        self.labels = {}
        for instruction in instructions:
            if isinstance(instruction, str):
                self.labels[instruction] = len(self.code)
            else:
                self.code.append(instruction if isinstance(instruction, list) else [instruction])

    def next(self, at, result):
        return self.labels[result] if isinstance(result, str) else at + 1


class Result:
    def __init__(self, states, bad, trace):
        self.states = states
        self.bad = bad
        self.trace = trace


def explore(variables, threads, invariant=None, may_wait=()):
    """Threads by name; those in may_wait need not end. INVARIANT gets every state and whether all others have ended."""
    programs = {name: Program(code) for name, code in threads.items()}
    names = sorted(programs)
    keys = sorted(variables)

    def freeze(places, s):
        return (tuple(places[n] for n in names), tuple(s[k] for k in keys))

    first = freeze({n: 0 for n in names}, variables)
    came_from = {first: None}
    queue = deque([first])

    def trace(state, last):
        steps = [last] if last else []
        while came_from[state]:
            state, step = came_from[state]
            steps.append(step)
        return list(reversed(steps))

    while queue:
        state = queue.popleft()
        places = dict(zip(names, state[0]))
        running = [n for n in names if places[n] < len(programs[n].code)]
        moved = False
        for name in running:
            program = programs[name]
            for instruction in program.code[places[name]]:
                s = dict(zip(keys, state[1]))
                try:
                    result = instruction(s)
                except Bad as bad:
                    return Result(len(came_from), str(bad), trace(state, f"{name}@{places[name]}"))
                if result is BLOCKED:
                    continue
                moved = True
                after = dict(places)
                after[name] = program.next(places[name], result)
                new = freeze(after, s)
                if new not in came_from:
                    came_from[new] = (state, f"{name}@{places[name]}")
                    queue.append(new)
        if invariant:
            why = invariant(dict(zip(keys, state[1])), not [n for n in running if n not in may_wait])
            if why:
                return Result(len(came_from), why, trace(state, None))
        stuck = [n for n in running if n not in may_wait]
        if not moved and stuck:
            return Result(len(came_from), "nobody can run, and these wait for ever: " + ", ".join(stuck), trace(state, None))
    return Result(len(came_from), None, [])


def all_of(*results):
    """One result for several situations: the first that is bad, with the states of all."""
    states = sum(r.states for r in results)
    for result in results:
        if result.bad:
            return Result(states, result.bad, result.trace)
    return Result(states, None, [])
