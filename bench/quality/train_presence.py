#!/usr/bin/env python3
"""Trains the enhanced speech presence's two networks and writes their table.

    cmake --build build/rel --target vorn_presence_data
    mkdir -p build/fit-cache
    VORN_FIT_CACHE=build/fit-cache build/rel/bench/quality/vorn_presence_data 90 build/presence_data.bin
    /usr/bin/python3 bench/quality/train_presence.py build/presence_data.bin src/adsp_ns/presence_net_table.cpp

The data tool (bench/quality/presence_data.cpp) renders the training scenes
and computes the library's own cues for every hop; this script only learns
from them. Needs the distribution's PyTorch and NumPy (python3-torch,
python3-numpy); a development step, never part of the build: the build
compiles the table this writes. Half an hour of one core on a shared machine, most
of it the flag network (--nets keeps the trained networks and reuses each one
that still has the shape asked for: to try threshold choices, or a change to
the flag network alone, without training the rest again).

Assumptions, written here because the weights have no closed rule:
 - The networks are those of src/adsp_ns/presence_net.h: inputs normalised by
   their training mean and spread, one hidden layer of tanh units (20 in the
   presence network, 40 in the flag network), a logistic output. The presence
   network reads the cues of a hop and the two before it; the flag network
   the 13 hops (104 ms) ending at the first hop of the frame it judges: the
   five around the frame its flag labels and the eight before them, which
   show whether a pause or a syllable led up to it. With every fifth scene
   held out and the rest trained on (in float32, thresholds chosen on the
   rest), the flag's F1 on the held-out scenes was 0.834 with 20 units
   reading five hops, 0.845 with 40 reading nine and 0.851 with 40 reading
   13.
 - A hop is labelled speech when the talker is in a syllable at the middle of
   its analysis window. The frame leaving the suppressor takes the label of
   the input frame two frames back (it lags by 1.5 frames, or 1.75 behind the
   canceller; the bench rounds both to 2). The first 40 hops (20 frames) of a
   scene are left out while the noise estimate settles.
 - Each network is trained by full-batch Adam (learning rate 0.01, 1000 steps)
   on the cross-entropy of its labels, with a weight decay of 1e-4 on the
   weights, from uniform initial weights within 1/sqrt(inputs); one thread,
   deterministic kernels and fixed seeds make every run give the same bits.
 - The library calls a frame speech when the flag network's output, capped by
   the largest presence of the newest five hops the flag network read, is above a
   threshold, a higher one to raise the flag than to keep it. The pair, from
   0.20, 0.25, ..., 0.95, is the one with the best pooled F1 over the
   training scenes, computed as the library computes (float32), with every
   frame the canceller calls echo alone left unflagged.
 - The canceller also calls echo alone many frames where the talker speaks
   over the far end. On those frames the flag never rises, but a flag
   already up stays above a third bar, chosen after the pair from the
   onset up to 1 (never): the one with the best pooled F1 that leaves at
   most 2 % of the frames of echo alone flagged (the far end plays and no
   talker frame lies within 8 frames), well inside the 5 % a device may
   show. (Letting the flag rise over that bar as well flagged a quarter of
   the echo bench's echo-alone frames at a bar that flagged 2 % here: these
   scenes' echo is easier than a real room's, so the bar only keeps. The
   library lets the flag rise over echo alone only above a fixed 0.8, and
   only once the canceller's lead has held for 2.5 s of play, when the
   presence has learnt the echo's level; see src/adsp_ns/vad_enhanced.cpp.
   The choice here leaves that rule out.) The onset stands at least 0.15 above the
   threshold that keeps the flag: over long stretches of noise alone (a
   minute, not the seconds of noise the training scenes begin with) the
   output wanders by about that much, and a lone frame of noise must not
   start a flag.
 - For the same reason a frame above the onset raises the flag only when
   the frame before it was above the onset too, or when it stands 0.15 above
   it (the "sure" bar, written to the table): a lone frame of noise reaching
   just past the onset is what a minute of noise alone still showed. Over
   the training scenes this costs 0.001 of F1 and flags fewer frames of
   the scenes with no talker.
"""
import argparse
import os
import struct
import sys

import numpy as np
import torch

PRESENCE_HIDDEN = 20
FLAG_HIDDEN = 40
PRESENCE_CONTEXT = 3
FLAG_CONTEXT = 13
FLAG_AGREE = 5
FIRST_HOP = 40
FIRST_FRAME = 20
FLAG_LAG = 2
STEPS = 1000
LEARNING_RATE = 0.01
WEIGHT_DECAY = 1e-4
SEED = 1
MIN_ONSET_MARGIN = 0.15
ECHO_ALONE_MAX_FLAGGED = 0.02
SURE_MARGIN = 0.15
ECHO_ALONE_CLEAR_FRAMES = 8


def read_data(path):
    """The scenes of a vorn_presence_data file: (cues [hops, cues], labels, lag)."""
    with open(path, "rb") as f:
        blob = f.read()
    if blob[:4] != b"VPD2":
        sys.exit(f"{path}: not a presence data file (run vorn_presence_data again)")
    cues, hop, fft_len, frame, count = struct.unpack_from("<5i", blob, 4)
    at = 24
    scenes = []
    for _ in range(count):
        _seed, lag, hops, frames = struct.unpack_from("<4i", blob, at)
        at += 16
        c = np.frombuffer(blob, dtype="<f4", count=hops * cues, offset=at).reshape(hops, cues)
        at += hops * cues * 4
        labels = np.frombuffer(blob, dtype=np.uint8, count=frames, offset=at)
        at += frames
        gates = np.frombuffer(blob, dtype=np.uint8, count=hops // 2, offset=at)
        at += hops // 2
        scenes.append((c, labels, lag, gates))
    return scenes, {"hop": hop, "fft_len": fft_len, "frame": frame}


def stack(cues, last, context):
    """Cues of `context` hops ending at each hop of `last`, newest first."""
    return np.concatenate([cues[last - back] for back in range(context)], axis=1)


def presence_set(scenes, geometry):
    xs, ys = [], []
    for cues, labels, lag, _ in scenes:
        h = np.arange(FIRST_HOP, len(cues))
        xs.append(stack(cues, h, PRESENCE_CONTEXT))
        at = ((h + 1) * geometry["hop"] - geometry["fft_len"] // 2 - lag) // geometry["frame"]
        ys.append(labels[at])
    return np.concatenate(xs), np.concatenate(ys)


def flag_frames(cues, labels):
    """Frames a flag is judged for: each has its first hop and the one after."""
    return np.arange(FIRST_FRAME, min(len(labels), len(cues) // 2))


def flag_set(scenes):
    xs, ys = [], []
    for cues, labels, _, _ in scenes:
        f = flag_frames(cues, labels)
        xs.append(stack(cues, 2 * f, FLAG_CONTEXT))
        ys.append(labels[f - FLAG_LAG])
    return np.concatenate(xs), np.concatenate(ys)


def train(x, y, name, hidden):
    """A network trained on inputs x and 0/1 labels y, as float64 arrays."""
    x = torch.from_numpy(x.astype(np.float64))
    y = torch.from_numpy(y.astype(np.float64))
    mean = x.mean(dim=0)
    scale = 1.0 / torch.sqrt(((x - mean) ** 2).mean(dim=0) + 1e-6)
    xs = (x - mean) * scale
    inputs = x.shape[1]
    generator = torch.Generator().manual_seed(SEED)
    bound = 1.0 / np.sqrt(inputs)
    w1 = ((torch.rand(hidden, inputs, generator=generator, dtype=torch.float64) * 2 - 1) * bound).requires_grad_()
    b1 = torch.zeros(hidden, dtype=torch.float64, requires_grad=True)
    w2 = ((torch.rand(hidden, generator=generator, dtype=torch.float64) * 2 - 1) * bound).requires_grad_()
    b2 = torch.zeros((), dtype=torch.float64, requires_grad=True)
    optimiser = torch.optim.Adam(
        [{"params": [w1, w2], "weight_decay": WEIGHT_DECAY}, {"params": [b1, b2], "weight_decay": 0.0}],
        lr=LEARNING_RATE)
    for step in range(1, STEPS + 1):
        optimiser.zero_grad()
        logit = torch.tanh(xs @ w1.T + b1) @ w2 + b2
        loss = torch.nn.functional.binary_cross_entropy_with_logits(logit, y)
        loss.backward()
        optimiser.step()
        if step % 100 == 0:
            print(f"{name}, step {step}: cross-entropy {loss.item():.4f}", file=sys.stderr)
    as32 = lambda t: t.detach().numpy().astype(np.float32)
    return {"mean": as32(mean), "scale": as32(scale), "w1": as32(w1), "b1": as32(b1), "w2": as32(w2),
            "b2": np.float32(b2.item())}


def logits(net, x):
    """The network's output logits for the rows of x, in float32 as the library computes them."""
    xs = (x.astype(np.float32) - net["mean"]) * net["scale"]
    return np.tanh(xs @ net["w1"].T + net["b1"]) @ net["w2"] + net["b2"]


def sigmoid(z):
    return (1.0 / (1.0 + np.exp(-z.astype(np.float32)))).astype(np.float32)


def sure_bar(onset):
    return np.float32(onset + np.float32(SURE_MARGIN))


def decide(out, bounds, threshold, onset, echo_alone=None, echo_bar=np.float32(1.0)):
    """The library's flags for the outputs of scenes laid end to end."""
    flags = np.zeros(len(out), dtype=bool)
    start, sure, keep = out > onset, out > sure_bar(onset), out > threshold
    if echo_alone is not None:
        start = start & ~echo_alone
        sure = sure & ~echo_alone
        keep = np.where(echo_alone, out > echo_bar, keep)
    for begin, end in zip(bounds[:-1], bounds[1:]):
        speaking, primed = False, False
        for i in range(begin, end):
            speaking = bool(keep[i]) if speaking else bool(sure[i]) or (bool(start[i]) and primed)
            primed = bool(start[i])
            flags[i] = speaking
    return flags


def f1_of(flags, labels):
    tp = np.sum(flags & labels)
    return 2 * tp / max(2 * tp + np.sum(flags & ~labels) + np.sum(~flags & labels), 1)


def choose_thresholds(scenes, presence, flag):
    """The flag's thresholds, to keep it and to raise it, and the bar on
    frames the canceller calls echo alone: the best pooled F1 over the
    scenes (see the header)."""
    outputs, labels, gated, alone = [], [], [], []
    for cues, scene_labels, _, gates in scenes:
        hop_prob = np.zeros(len(cues), dtype=np.float32)
        hop_prob[PRESENCE_CONTEXT - 1:] = sigmoid(
            logits(presence, stack(cues, np.arange(PRESENCE_CONTEXT - 1, len(cues)), PRESENCE_CONTEXT)))
        f = flag_frames(cues, scene_labels)
        recent = np.max(np.stack([hop_prob[2 * f - back] for back in range(FLAG_AGREE)]), axis=0)
        outputs.append(np.minimum(sigmoid(logits(flag, stack(cues, 2 * f, FLAG_CONTEXT))), recent))
        labels.append(scene_labels[f - FLAG_LAG] != 0)
        gated.append((gates[f] & 1) != 0)
        talker = scene_labels != 0
        near = np.zeros(len(f), dtype=bool)
        for d in range(-ECHO_ALONE_CLEAR_FRAMES, ECHO_ALONE_CLEAR_FRAMES + 1):
            near |= talker[np.clip(f - FLAG_LAG + d, 0, len(talker) - 1)]
        alone.append(((gates[f] & 2) != 0) & ~near)
    bounds = np.cumsum([0] + [len(o) for o in outputs])
    out, labels = np.concatenate(outputs), np.concatenate(labels)
    gated, alone = np.concatenate(gated), np.concatenate(alone)
    never = np.float32(1.0)
    steps = [np.float32(0.2 + 0.05 * i) for i in range(16)]
    best = (0.0, steps[0], steps[0])
    for threshold in steps:
        for onset in (t for t in steps if t >= threshold + MIN_ONSET_MARGIN - 1e-6):
            f1 = f1_of(decide(out, bounds, threshold, onset, gated, never), labels)
            if f1 > best[0]:
                best = (f1, threshold, onset)
    f1, threshold, onset = best
    echo_bar = never
    for bar in (t for t in steps if t >= onset):
        flags = decide(out, bounds, threshold, onset, gated, bar)
        share = np.sum(flags & alone) / max(np.sum(alone), 1)
        bar_f1 = f1_of(flags, labels)
        if share <= ECHO_ALONE_MAX_FLAGGED and bar_f1 > f1:
            f1, echo_bar = bar_f1, bar
    flags = decide(out, bounds, threshold, onset, gated, echo_bar)
    share = np.sum(flags & alone) / max(np.sum(alone), 1)
    print(f"thresholds {threshold:.2f}, onset {onset:.2f}, over echo alone {echo_bar:.2f}: F1 {f1:.3f}, "
          f"{100 * share:.1f} % of echo alone flagged", file=sys.stderr)
    return f1, threshold, onset, echo_bar


def row(values):
    return "{" + ", ".join(f"{float(v):#.9g}f" for v in np.atleast_1d(values)) + "}"


def net_text(kind, name, net):
    lines = [f"const {kind} {name} = {{", f"  {row(net['mean'])},", f"  {row(net['scale'])},", "  {"]
    lines += [f"    {row(r)}," for r in net["w1"]]
    lines += ["  },", f"  {row(net['b1'])},", f"  {row(net['w2'])},", f"  {float(net['b2']):#.9g}f,", "};", ""]
    return "\n".join(lines) + "\n"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("data", help="file written by vorn_presence_data")
    parser.add_argument("table", help="the C++ table to write")
    parser.add_argument("--nets", help="keep the trained networks in this .npz and reuse each one it holds "
                        "in the shape asked for (to try threshold or flag choices without training the "
                        "rest again)")
    args = parser.parse_args()
    torch.manual_seed(SEED)
    torch.set_num_threads(1)
    torch.use_deterministic_algorithms(True)

    scenes, geometry = read_data(args.data)
    x, y = presence_set(scenes, geometry)
    kept = dict(np.load(args.nets)) if args.nets and os.path.exists(args.nets) else {}
    keys = ("mean", "scale", "w1", "b1", "w2", "b2")

    def kept_or_trained(name, hidden, inputs, labels):
        if all(f"{name}_{k}" in kept for k in keys) and kept[f"{name}_w1"].shape == (hidden, inputs.shape[1]):
            return {k: kept[f"{name}_{k}"] for k in keys}
        return train(inputs, labels, name, hidden)

    presence = kept_or_trained("presence", PRESENCE_HIDDEN, x, y)
    flag = kept_or_trained("flag", FLAG_HIDDEN, *flag_set(scenes))
    if args.nets:
        np.savez(args.nets, **{f"{name}_{k}": v for name, net in (("presence", presence), ("flag", flag))
                               for k, v in net.items()})
    f1, threshold, onset, echo_bar = choose_thresholds(scenes, presence, flag)

    text = ("// Generated by bench/quality/train_presence.py (its header gives the command and the\n"
            f"// assumptions); do not edit. {len(x)} training hops from {len(scenes)} scenes; the speech flag's\n"
            f"// F1 over them is {f1:.3f} at the thresholds below.\n"
            "#include \"adsp_ns/presence_net.h\"\n\nnamespace vorn {\n\n"
            "// A table shorter than its network would compile, the rest read as zeros.\n"
            f"static_assert(kNetInputs == {presence['w1'].shape[1]} && kPresenceHidden == {presence['w1'].shape[0]} &&\n"
            f"              kFlagInputs == {flag['w1'].shape[1]} && kFlagHidden == {flag['w1'].shape[0]},\n"
            "              \"the networks' shape changed: train them again\");\n\n// clang-format off\n")
    text += net_text("NetTable<kNetInputs, kPresenceHidden>", "kPresenceNet", presence)
    text += net_text("NetTable<kFlagInputs, kFlagHidden>", "kFlagNet", flag)
    text += f"const float kFlagThreshold = {float(threshold):#.9g}f;\n"
    text += f"const float kFlagOnsetThreshold = {float(onset):#.9g}f;\n"
    text += f"const float kFlagEchoThreshold = {float(echo_bar):#.9g}f;\n"
    text += f"const float kFlagSureThreshold = {float(sure_bar(onset)):#.9g}f;\n"
    text += "// clang-format on\n\n}  // namespace vorn\n"
    with open(args.table, "w") as f:
        f.write(text)
    print(f"wrote {args.table}: flag F1 {f1:.3f} at thresholds {float(threshold):.2f} / {float(onset):.2f}"
          " over the training scenes")


if __name__ == "__main__":
    main()
