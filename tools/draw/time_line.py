"""A picture of a full run: how long each row takes, usually and at worst, and the part of it in which a power cut loses
contents. Rows: the times at which a run on a simulated board prints their names. Flash: board-sim --estimate, for the
times of the real chip. Risk: board-sim --cut-audit."""
import os
import re
import subprocess
import time

from svg import path, rect, svg, text

TOP = 70
LINE = 34
PANELS = ((170, 330), (545, 330))  # left edge and width


def row_times(board_sim):
    """Name and seconds of each row of a healthy run."""
    rows, began, name = [], 0, None
    with subprocess.Popen([board_sim], stdout=subprocess.PIPE, text=True) as run:
        for line in run.stdout:
            found = re.search(r'Executing Mod 1 1 (.*?) Test ?:|Completed', line)
            if not found:
                continue
            now = time.monotonic()
            if name:
                rows.append((name, now - began))
            name, began = found.group(1), now
    return rows


def estimates(board_sim):
    """Seconds of NVRAM and flash with the real chip's usual and longest times."""
    with subprocess.Popen([board_sim, '--real-times', '--busy', 'time', '--estimate'], stdout=subprocess.DEVNULL,
                          stderr=subprocess.PIPE, text=True) as run:
        found = re.search(r'about (\d+) s on an idle processor, (\d+) s', run.stderr.readline())
        run.terminate()
        return [int(seconds) for seconds in found.groups()]


def phases_of(board_sim, here):
    """Of the NVRAM and OBFL rows, on a board whose memories are full of data: their phases in order, each with its
    share of the row (of the writes to the NVRAMs, of the time in which the flash is busy) and its share at risk."""
    state, audit = os.path.join(here, 'board'), os.path.join(here, 'audit')
    os.mkdir(state)
    for memory, size in (('nvram0', 0x8000), ('nvram1', 0x8000), ('nvram2', 0x8000), ('flash', 0x4000000)):
        with open(os.path.join(state, memory), 'wb') as contents:
            contents.write(os.urandom(size))
    subprocess.run([board_sim, '--waits', 'short', '--state', state, '--cut-audit', audit], stdout=subprocess.DEVNULL,
                   check=True)
    rows = {'NVRAM': [], 'OBFL': []}
    with open(audit, encoding='utf-8') as lines:
        for memory, _, phase, *numbers in (line.split('\t') for line in lines if line[0] in 'nf'):
            column = 3 if memory == 'flash' else 0
            if phase != 'all':
                rows['OBFL' if column else 'NVRAM'].append([float(number) for number in numbers[column:column + 2]])
    whole = {name: sum(all_of for all_of, _ in phases) for name, phases in rows.items()}
    return {name: [(all_of / whole[name], risk / whole[name]) for all_of, risk in phases] for name, phases in rows.items()}


def at_risk(phases, x, width):
    """The stretches of a row's bar in which a cut loses contents: first and last column. Within a phase they come first."""
    stretches = []
    for share, risk in phases:
        if risk:
            if stretches and x - stretches[-1][1] < 0.5:
                stretches[-1][1] = x + risk * width
            else:
                stretches.append([x, x + risk * width])
        x += share * width
    return stretches


def panel(place, title, rows, phases):
    """One line a row on one axis of time."""
    left, width = PANELS[place]
    total = sum(seconds for _, seconds in rows)
    step = next(each for each in (10, 20, 50, 100, 200, 500) if total / each <= 6)
    scale = width / (step * -(-total // step))
    bottom = TOP + LINE * len(rows)
    parts = [text(left, 40, title)]
    for tick in range(0, int(width / scale) + 1, step):
        parts += [path([(left + tick * scale, TOP - 6), (left + tick * scale, bottom)], 'g'),
                  text(left + tick * scale, bottom + 16, f'{tick} s', 's m')]
    begin = 0
    for number, (name, seconds) in enumerate(rows):
        x, y, wide = left + begin * scale, TOP + LINE * number, max(2, seconds * scale)
        parts.append(rect(round(x, 1), y, round(wide, 1), 20, 't'))
        for first, last in at_risk(phases.get(name, []), x, wide):
            parts.append(rect(round(first, 1), y, round(last - first, 1), 20, 'r'))
        begin += seconds
    return parts


def time_line(board_sim, here):
    measured = row_times(board_sim)
    nvram = dict(measured)['NVRAM']
    phases = phases_of(board_sim, here)
    parts = [text(20, TOP + LINE * number + 15, name) for number, (name, _) in enumerate(measured)]
    for place, (title, seconds) in enumerate(zip(('usual', 'flash at its slowest'), estimates(board_sim))):
        rows = [(name, seconds - nvram if name == 'OBFL' else took) for name, took in measured]
        parts += panel(place, f'{title}: {seconds} s', rows, phases)
    risks = {name: sum(risk for _, risk in of_row) for name, of_row in phases.items()}
    bottom = TOP + LINE * len(measured) + 45
    parts += [rect(20, bottom - 11, 14, 14, 'r'),
              text(40, bottom, f'A power cut loses contents: {100 * risks["NVRAM"]:.0f} % of the writes to the NVRAMs, '
                               f'{100 * risks["OBFL"]:.0f} % of the time in which the flash is busy.', 's'),
              text(20, bottom + 20, 'On a board the self-tests of the Ethernet controllers take longer than here.', 's')]
    return svg(900, bottom + 35, parts)
