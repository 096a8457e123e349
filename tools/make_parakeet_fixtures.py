#!/usr/bin/python3
"""Writes small Parakeet TDT model folders for Vocari's tests, and large synthetic ones for its
benchmarks, with the exact tensor contracts of both ONNX layouts.

The test networks recognise tones instead of speech: the preprocessor measures, in every 10 ms
frame, the energy at a fixed set of frequencies; the encoder averages four frames and adds a
"silence" channel with a constant level. Every token has two tones, a low and a high one, and the
tokens of a phrase alternate between them. The prediction network counts the tokens it has been
fed in its LSTM state, and the joint network reads the loudest channel as a token only when it
lies in the register that count expects; the tone of the token just emitted, still sounding, is
then in the other register and reads as blank. The right tokens therefore come out only when the
state of each token step is fed into the next and left alone on blanks. A signal of tones and
pauses (described in sentence.json, also written as a WAV file) decodes to a known sentence, in
both layouts. Everything is deterministic: the same command writes the same bytes.

    make_parakeet_fixtures.py OUT            test fixtures (a few hundred kB)
    make_parakeet_fixtures.py --bench OUT    realistic-size networks with random weights

Needs only python3-onnx and python3-numpy from Debian.
"""

import argparse
import json
import os
import sys
import wave

import numpy as np
import onnx
from onnx import TensorProto, helper, numpy_helper

OPSET = 17
IR_VERSION = 8
SAMPLE_RATE = 16000
HOP = 160  # 10 ms feature frames
SUBSAMPLING = 4  # 40 ms encoder frames
FEATURES = 128  # the community export's "nemo128" width
WIDTH = 32  # encoder frame width D
STATE = (2, 1, 640)
SPLIT_BLANK = 8192
FIXED_SAMPLES = 240000
SILENCE_LEVEL = 0.002  # energy of the silence channel: a tone of amplitude 0.045
AMPLITUDE = 0.3

PIECES = [
    "<unk>",
    "<en>",
    "\u2581Hello",
    ",",
    "\u2581world",
    ".",
    "\u2581This",
    "\u2581is",
    "\u2581Voc",
    "ari",
    "\u2581unused",
    "s",
]
COMMUNITY_BLANK = len(PIECES)  # "<blk>" is the last line of vocab.txt
CHANNELS = 2 * len(PIECES)  # a low and a high tone per token; the silence channel follows
# "Hello, world." and "<en> This is Vocari.": an even number of tokens in the first phrase, so
# that the second one starts in the low register whether it is decoded alone or after the first.
PHRASES = [[2, 3, 4, 5], [1, 6, 7, 8, 9, 5]]
REPEAT_TOKEN = 9  # "ari"


def tone_of(channel):
    """The frequency of a channel (token, plus len(PIECES) for the high register): 100 Hz steps,
    whole cycles per 10 ms frame."""
    return (channel + 4) * 100.0


# --------------------------------------------------------------------------------------------
# Graph helpers


def ints(*values):
    return np.array(values, dtype=np.int64)


def const(name, array):
    return numpy_helper.from_array(np.asarray(array), name)


def tensor(name, elem, shape):
    return helper.make_tensor_value_info(name, elem, shape)


def save(graph_nodes, name, inputs, outputs, initializers, path, check=True):
    graph = helper.make_graph(graph_nodes, name, inputs, outputs, initializers)
    model = helper.make_model(
        graph,
        opset_imports=[helper.make_opsetid("", OPSET)],
        producer_name="vocari-fixtures",
        producer_version="1",
    )
    model.ir_version = IR_VERSION
    if check:  # the checker insists on shapes, which one failure fixture leaves out on purpose
        onnx.checker.check_model(model)
    onnx.save(model, path)


def node(op, inputs, outputs, **attrs):
    return helper.make_node(op, inputs, outputs, **attrs)


# --------------------------------------------------------------------------------------------
# Tone networks


def tone_basis():
    """[HOP, 2 * FEATURES]: cosine then sine projections; columns past the tokens are zero."""
    t = np.arange(HOP) / SAMPLE_RATE
    basis = np.zeros((HOP, 2 * FEATURES), dtype=np.float32)
    for channel in range(CHANNELS):
        w = 2 * np.pi * tone_of(channel) * t
        basis[:, channel] = np.cos(w) * 2 / HOP
        basis[:, FEATURES + channel] = np.sin(w) * 2 / HOP
    return basis


def write_preprocessor(path, names, length_type, fixed):
    """Tone energies per 10 ms frame: [1, N] samples → [1, FEATURES, N / 160]."""
    signal, signal_len, feats, feats_len = names
    samples = FIXED_SAMPLES if fixed else "samples"
    nodes = [
        node("Shape", [signal], ["shape"]),
        node("Gather", ["shape", "one"], ["n"], axis=0),
        node("Div", ["n", "hop"], ["frames"]),
        node("Mul", ["frames", "hop"], ["used"]),
        node("Reshape", ["used", "one1"], ["used1"]),
        node("Reshape", ["frames", "one1"], ["frames1"]),
        node("Slice", [signal, "zero1", "used1", "one1"], ["trimmed"]),
        node("Concat", ["one1", "frames1", "hop1"], ["frame_shape"], axis=0),
        node("Reshape", ["trimmed", "frame_shape"], ["framed"]),
        node("MatMul", ["framed", "basis"], ["proj"]),
        node("Mul", ["proj", "proj"], ["power"]),
        node("Reshape", ["power", "split_shape"], ["halves"]),
        node("ReduceSum", ["halves", "axis2"], ["energy"], keepdims=0),
        node("Transpose", ["energy"], [feats], perm=[0, 2, 1]),
        node("Cast", [signal_len], ["len64"], to=TensorProto.INT64),
        node("Div", ["len64", "hop1"], ["flen64"]),
        node("Cast", ["flen64"], [feats_len], to=length_type),
    ]
    inits = [
        const("one", np.array(1, dtype=np.int64)),
        const("one1", np.array([1], dtype=np.int64)),
        const("zero1", np.array([0], dtype=np.int64)),
        const("hop", np.array(HOP, dtype=np.int64)),
        const("hop1", np.array([HOP], dtype=np.int64)),
        const("basis", tone_basis()),
        const("split_shape", np.array([1, -1, 2, FEATURES], dtype=np.int64)),
        const("axis2", np.array([2], dtype=np.int64)),
    ]
    save(
        nodes,
        "preprocessor",
        [tensor(signal, TensorProto.FLOAT, [1, samples]), tensor(signal_len, length_type, [1])],
        [
            tensor(feats, TensorProto.FLOAT, [1, FEATURES, "frames"]),
            tensor(feats_len, length_type, [1]),
        ],
        inits,
        path,
    )


def write_encoder(path, names, length_type, rank=3):
    """Averages four feature frames and maps tone bins to channels, plus a silence channel."""
    feats, feats_len, encoded, encoded_len = names
    projection = np.zeros((FEATURES, WIDTH), dtype=np.float32)
    for channel in range(CHANNELS):
        projection[channel, channel] = 1.0
    bias = np.zeros(WIDTH, dtype=np.float32)
    bias[CHANNELS] = SILENCE_LEVEL
    nodes = [
        node("Shape", [feats], ["shape"]),
        node("Gather", ["shape", "two"], ["t"], axis=0),
        node("Div", ["t", "sub"], ["t4"]),
        node("Mul", ["t4", "sub"], ["used"]),
        node("Reshape", ["used", "one1"], ["used1"]),
        node("Slice", [feats, "zero1", "used1", "two1"], ["trimmed"]),
        node("Reshape", ["trimmed", "pool_shape"], ["grouped"]),
        node("ReduceMean", ["grouped"], ["pooled"], axes=[3], keepdims=0),
        node("Transpose", ["pooled"], ["by_time"], perm=[0, 2, 1]),
        node("MatMul", ["by_time", "projection"], ["mapped"]),
        node("Add", ["mapped", "bias"], ["biased"]),
        node("Transpose", ["biased"], [encoded if rank == 3 else "full"], perm=[0, 2, 1]),
        node("Cast", [feats_len], ["len64"], to=TensorProto.INT64),
        node("Div", ["len64", "sub1"], ["elen64"]),
        node("Cast", ["elen64"], [encoded_len], to=length_type),
    ]
    if rank == 2:  # a declared [D, T] output
        nodes.append(node("Reshape", ["full", "flat_shape"], [encoded]))
    elif rank == "squeezed":  # [D, T] at run time, its rank unknown until then
        nodes += [
            node("Mul", ["len64", "zero_i"], ["zero_dyn"]),
            node("Squeeze", ["full", "zero_dyn"], [encoded]),
        ]
    inits = [
        const("two", np.array(2, dtype=np.int64)),
        const("one1", np.array([1], dtype=np.int64)),
        const("two1", np.array([2], dtype=np.int64)),
        const("zero1", np.array([0], dtype=np.int64)),
        const("sub", np.array(SUBSAMPLING, dtype=np.int64)),
        const("sub1", np.array([SUBSAMPLING], dtype=np.int64)),
        const("pool_shape", np.array([1, FEATURES, -1, SUBSAMPLING], dtype=np.int64)),
        const("projection", projection),
        const("bias", bias),
        const("flat_shape", np.array([WIDTH, -1], dtype=np.int64)),
        const("zero_i", np.array(0, dtype=np.int64)),
    ]
    out_shape = [1, WIDTH, "frames"] if rank == 3 else None  # left to shape inference
    save(
        nodes,
        "encoder",
        [
            tensor(feats, TensorProto.FLOAT, [1, FEATURES, "features"]),
            tensor(feats_len, length_type, [1]),
        ],
        [tensor(encoded, TensorProto.FLOAT, out_shape), tensor(encoded_len, length_type, [1])],
        inits,
        path,
        check=rank == 3,
    )


def count_nodes(blank, states_in, states_out):
    """The prediction network's stand-in: both LSTM states count the real tokens fed in as
    "targets" (a blank start token counts nothing). Also writes "consumed", a float equal to
    twice the count, read from both states so that each of them has to be carried."""
    nodes = [
        node("Cast", ["targets"], ["target64"], to=TensorProto.INT64),
        node("Equal", ["target64", "blank1"], ["fed_blank"]),
        node("Not", ["fed_blank"], ["fed_token"]),
        node("Cast", ["fed_token"], ["token_step"], to=TensorProto.FLOAT),
        node("Cast", ["target_length"], ["length_f"], to=TensorProto.FLOAT),
        node("Mul", ["token_step", "length_f"], ["count_step"]),
        node("Add", [states_in[0], "count_step"], [states_out[0]]),
        node("Add", [states_in[1], "count_step"], [states_out[1]]),
        node("ReduceMean", [states_out[0]], ["count1"], keepdims=0),
        node("ReduceMean", [states_out[1]], ["count2"], keepdims=0),
        node("Add", ["count1", "count2"], ["consumed"]),
    ]
    return nodes, [const("blank1", np.array([blank], dtype=np.int64))]


def decision_nodes(frame, consumed):
    """Nodes that turn an encoder frame [1, WIDTH, 1] and "consumed" (twice the tokens emitted so
    far, one float) into "token" and "frames" (int64 [1]). The loudest channel is read as its
    token when its register is the one the count expects (low for an even count); silence and a
    tone in the other register, the one emitted last, are blank. Two frames ahead after a token
    or in silence, one on a held tone. Needs the initializer "blank1"."""
    channel_token = np.full(WIDTH, -1, dtype=np.int64)
    channel_token[:CHANNELS] = np.arange(CHANNELS) % len(PIECES)
    channel_register = np.zeros(WIDTH, dtype=np.int64)
    channel_register[len(PIECES):CHANNELS] = 1
    nodes = [
        node("Reshape", [consumed, "one1"], ["consumed1"]),
        node("Cast", ["consumed1"], ["twice_count"], to=TensorProto.INT64),
        node("Div", ["twice_count", "two1"], ["count"]),
        node("Mod", ["count", "two1"], ["expected"]),
        node("Reshape", [frame, "width1"], ["flat"]),
        node("ArgMax", ["flat"], ["channel"], axis=0, keepdims=1),
        node("Gather", ["channel_token", "channel"], ["heard"], axis=0),
        node("Gather", ["channel_register", "channel"], ["register"], axis=0),
        node("Less", ["heard", "zero1"], ["silent"]),
        node("Not", ["silent"], ["sounding"]),
        node("Equal", ["register", "expected"], ["in_turn"]),
        node("And", ["in_turn", "sounding"], ["emit"]),
        node("Where", ["emit", "heard", "blank1"], ["token"]),
        node("Not", ["in_turn"], ["out_of_turn"]),
        node("And", ["out_of_turn", "sounding"], ["held"]),
        node("Where", ["held", "one1", "two1"], ["frames"]),
    ]
    inits = [
        const("one1", np.array([1], dtype=np.int64)),
        const("two1", np.array([2], dtype=np.int64)),
        const("zero1", np.array([0], dtype=np.int64)),
        const("width1", np.array([WIDTH], dtype=np.int64)),
        const("channel_token", channel_token),
        const("channel_register", channel_register),
    ]
    return nodes, inits


def write_split_decoder(path, drop_output=None):
    """Decoder: the token count in h and c; its output is "consumed" as [1, 1, 1]."""
    nodes, inits = count_nodes(SPLIT_BLANK, ["h_in", "c_in"], ["h_next", "c_next"])
    nodes += [
        node("Reshape", ["consumed", "out_shape"], ["decoder"]),
        node("Identity", ["h_next"], ["h_out"]),
        node("Identity", ["c_next"], ["c_out"]),
    ]
    inits.append(const("out_shape", np.array([1, 1, 1], dtype=np.int64)))
    outputs = [
        tensor("decoder", TensorProto.FLOAT, [1, 1, 1]),
        tensor("h_out", TensorProto.FLOAT, list(STATE)),
        tensor("c_out", TensorProto.FLOAT, list(STATE)),
    ]
    if drop_output:
        outputs = [o for o in outputs if o.name != drop_output]
        nodes = [n for n in nodes if drop_output not in n.output]
    save(
        nodes,
        "decoder",
        [
            tensor("targets", TensorProto.INT32, [1, 1]),
            tensor("target_length", TensorProto.INT32, [1]),
            tensor("h_in", TensorProto.FLOAT, list(STATE)),
            tensor("c_in", TensorProto.FLOAT, list(STATE)),
        ],
        outputs,
        inits,
        path,
    )


def write_split_joint(path, behaviour="tones", frame_input="encoder_step"):
    """JointDecisionv3: "tones" decodes the tone sentence; "blank" always answers blank with
    duration 0; "repeat" always answers REPEAT_TOKEN with duration 0; "empty" answers an empty
    token_id tensor."""
    inputs = [
        tensor(frame_input, TensorProto.FLOAT, [1, WIDTH, 1]),
        tensor("decoder_step", TensorProto.FLOAT, [1, 1, 1]),
    ]
    if behaviour == "tones":
        nodes, inits = decision_nodes(frame_input, "decoder_step")
        inits.append(const("blank1", np.array([SPLIT_BLANK], dtype=np.int64)))
    else:
        token = {"blank": SPLIT_BLANK, "repeat": REPEAT_TOKEN, "empty": 0}[behaviour]
        # The inputs still feed the answer (times zero), so the network keeps them.
        nodes = [
            node("ReduceSum", [frame_input], ["s1"], keepdims=0),
            node("ReduceSum", ["decoder_step"], ["s2"], keepdims=0),
            node("Add", ["s1", "s2"], ["s"]),
            node("Mul", ["s", "zero_f"], ["z"]),
            node("Cast", ["z"], ["z64"], to=TensorProto.INT64),
            node("Add", ["fixed", "z64"], ["token_all"]),
            node("Slice", ["token_all", "zero1", "token_end", "zero1"], ["token"]),
            node("Add", ["zero_frames", "z64"], ["frames"]),
        ]
        inits = [
            const("zero_f", np.array(0.0, dtype=np.float32)),
            const("fixed", np.array([token], dtype=np.int64)),
            const("zero1", np.array([0], dtype=np.int64)),
            const("token_end", np.array([0 if behaviour == "empty" else 1], dtype=np.int64)),
            const("zero_frames", np.array([0], dtype=np.int64)),
        ]
    nodes += [
        node("Cast", ["token"], ["token_id"], to=TensorProto.INT32),
        node("Cast", ["frames"], ["duration"], to=TensorProto.INT32),
    ]
    save(
        nodes,
        "joint",
        inputs,
        [tensor("token_id", TensorProto.INT32, ["n"]), tensor("duration", TensorProto.INT32, [1])],
        inits,
        path,
    )


def write_fused_decoder_joint(path, token_scores=None):
    """decoder_joint-model: the count of "targets" fed in moves from input_states_1/2 to
    output_states_1/2 and decides the register; the answer is token scores over the vocabulary
    (blank last) followed by five duration scores. token_scores makes a network for a smaller
    vocabulary than vocab.txt's."""
    vocab = token_scores or COMMUNITY_BLANK + 1
    nodes, inits = count_nodes(
        COMMUNITY_BLANK, ["input_states_1", "input_states_2"], ["output_states_1", "output_states_2"]
    )
    decide, decide_inits = decision_nodes("encoder_outputs", "consumed")
    nodes += decide + [
        node("OneHot", ["token", "vocab", "score_values"], ["token_scores"], axis=-1),
        node("OneHot", ["frames", "durations", "score_values"], ["duration_scores"], axis=-1),
        node("Concat", ["token_scores", "duration_scores"], ["scores"], axis=-1),
        node("Reshape", ["scores", "scores_shape"], ["outputs"]),
        node("Identity", ["target_length"], ["prednet_lengths"]),
    ]
    inits += decide_inits + [
        const("vocab", np.array([vocab], dtype=np.int64)),
        const("durations", np.array([5], dtype=np.int64)),
        const("score_values", np.array([0.0, 10.0], dtype=np.float32)),
        const("scores_shape", np.array([1, 1, 1, -1], dtype=np.int64)),
    ]
    save(
        nodes,
        "decoder_joint",
        [
            tensor("encoder_outputs", TensorProto.FLOAT, [1, WIDTH, 1]),
            tensor("targets", TensorProto.INT32, [1, 1]),
            tensor("target_length", TensorProto.INT32, [1]),
            tensor("input_states_1", TensorProto.FLOAT, list(STATE)),
            tensor("input_states_2", TensorProto.FLOAT, list(STATE)),
        ],
        [
            tensor("outputs", TensorProto.FLOAT, [1, 1, 1, vocab + 5]),
            tensor("prednet_lengths", TensorProto.INT32, [1]),
            tensor("output_states_1", TensorProto.FLOAT, list(STATE)),
            tensor("output_states_2", TensorProto.FLOAT, list(STATE)),
        ],
        inits,
        path,
    )


SPLIT_FRONT = (
    ("audio_signal", "audio_length", "mel", "mel_length"),
    ("mel", "mel_length", "encoder", "encoder_length"),
)
COMMUNITY_FRONT = (
    ("waveforms", "waveforms_lens", "features", "features_lens"),
    ("audio_signal", "length", "outputs", "encoded_lengths"),
)


def write_split_vocabulary(path):
    vocab = {str(i): piece for i, piece in enumerate(PIECES)}
    with open(path, "w", encoding="utf-8") as f:
        json.dump(vocab, f, ensure_ascii=False, indent=0, sort_keys=False)


def write_community_vocabulary(path):
    with open(path, "w", encoding="utf-8") as f:
        for i, piece in enumerate(PIECES):
            f.write(f"{piece} {i}\n")
        f.write(f"<blk> {COMMUNITY_BLANK}\n")


def split_folder(out, name, fixed=True, joint="tones", drop_decoder_output=None,
                 joint_frame_input="encoder_step", encoder_rank=3):
    folder = os.path.join(out, name)
    os.makedirs(folder, exist_ok=True)

    def path(name):
        return os.path.join(folder, name)

    write_preprocessor(path("Preprocessor.onnx"), SPLIT_FRONT[0], TensorProto.INT32, fixed)
    write_encoder(path("Encoder.onnx"), SPLIT_FRONT[1], TensorProto.INT32, encoder_rank)
    write_split_decoder(os.path.join(folder, "Decoder.onnx"), drop_decoder_output)
    write_split_joint(os.path.join(folder, "JointDecisionv3.onnx"), joint, joint_frame_input)
    write_split_vocabulary(os.path.join(folder, "parakeet_v3_vocab.json"))


def community_folder(out, name, token_scores=None):
    folder = os.path.join(out, name)
    os.makedirs(folder, exist_ok=True)

    def path(name):
        return os.path.join(folder, name)

    write_preprocessor(path("nemo128.onnx"), COMMUNITY_FRONT[0], TensorProto.INT64, False)
    write_encoder(path("encoder-model.int8.onnx"), COMMUNITY_FRONT[1], TensorProto.INT64)
    write_fused_decoder_joint(os.path.join(folder, "decoder_joint-model.int8.onnx"), token_scores)
    write_community_vocabulary(os.path.join(folder, "vocab.txt"))


# --------------------------------------------------------------------------------------------
# The tone sentence


def sentence_plan():
    """Tones of 0.2 s with 0.1 s gaps, alternately low and high; 1.5 s of silence between the
    phrases. Each phrase's span runs from its first tone to the end of the gap after its last."""
    segments = [{"silence": 0.5}]
    spans = []
    start = 0.5
    for index, phrase in enumerate(PHRASES):
        if index:
            segments.append({"silence": 1.5})
            start += 1.5
        for position, token in enumerate(phrase):
            channel = token + len(PIECES) * (position % 2)
            segments.append({"tone": tone_of(channel), "seconds": 0.2})
            segments.append({"silence": 0.1})
        spans.append([round(start, 3), round(start + 0.3 * len(phrase), 3)])
        start = spans[-1][1]
    segments.append({"silence": 0.8})
    texts = []
    for phrase in PHRASES:
        text = "".join(PIECES[t] for t in phrase if not PIECES[t].startswith("<"))
        texts.append(text.replace("\u2581", " ").strip())
    return {
        "sampleRate": SAMPLE_RATE,
        "amplitude": AMPLITUDE,
        "segments": segments,
        "phrases": texts,
        "phraseSpans": spans,
        "text": " ".join(texts),
        "repeatPiece": PIECES[REPEAT_TOKEN],
        "hop": HOP,
        "subsampling": SUBSAMPLING,
    }


def synthesize(plan, rate):
    """The plan's signal at any rate; tone phase restarts at each tone, as the C++ tests do."""
    parts = []
    for segment in plan["segments"]:
        if "silence" in segment:
            parts.append(np.zeros(int(round(segment["silence"] * rate))))
        else:
            n = int(round(segment["seconds"] * rate))
            t = np.arange(n) / rate
            parts.append(plan["amplitude"] * np.sin(2 * np.pi * segment["tone"] * t))
    return np.concatenate(parts)


def write_wav(path, samples, rate, channels):
    pcm = np.clip(np.round(samples * 32767), -32768, 32767).astype("<i2")
    frames = np.repeat(pcm[:, None], channels, axis=1).tobytes()
    with wave.open(path, "wb") as f:
        f.setnchannels(channels)
        f.setsampwidth(2)
        f.setframerate(rate)
        f.writeframes(frames)


def write_test_fixtures(out):
    os.makedirs(out, exist_ok=True)
    split_folder(out, "split")
    split_folder(out, "split-dynamic", fixed=False)
    community_folder(out, "community")
    split_folder(out, "blank-joint", joint="blank")
    split_folder(out, "repeat-joint", joint="repeat")
    split_folder(out, "empty-token", joint="empty")
    split_folder(out, "missing-output", drop_decoder_output="c_out")
    split_folder(out, "renamed-input", joint_frame_input="encoder_frame")
    split_folder(out, "flat-encoder", encoder_rank=2)
    split_folder(out, "squeezed-encoder", encoder_rank="squeezed")
    community_folder(out, "short-scores", token_scores=5)

    plan = sentence_plan()
    with open(os.path.join(out, "sentence.json"), "w", encoding="utf-8") as f:
        json.dump(plan, f, ensure_ascii=False, indent=1)
    # The file a microphone might have recorded: 44.1 kHz stereo, 16-bit.
    write_wav(os.path.join(out, "sentence.wav"), synthesize(plan, 44100), 44100, 2)
    with open(os.path.join(out, "not-a-wav.wav"), "wb") as f:
        f.write(b"This is plain text, not RIFF audio.\n")


# --------------------------------------------------------------------------------------------
# Realistic-size networks for the benchmarks


BENCH_VERSION = 2  # raised whenever the benchmark networks change
# Random layers stacked 24 deep wash out the differences between frames: every frame leaves the
# encoder alike, and the joint would decide the same at each. Damping each layer's branches, as
# a trained network's residual paths do, keeps the frames apart.
BRANCH_GAIN = 0.1
MEL_BINS = 128
N_FFT = 512
WINDOW = 400
ENC_WIDTH = 1024
ENC_LAYERS = 24
ENC_HEADS = 8
ENC_FF = 4096
ENC_SUBSAMPLING = 8
CONV_KERNEL = 9
PRED = 640
VOCAB = 8192
DURATIONS = 5


def mel_filterbank():
    def hz_to_mel(f):
        return 2595.0 * np.log10(1.0 + f / 700.0)

    bins = N_FFT // 2 + 1
    mels = np.linspace(hz_to_mel(0), hz_to_mel(SAMPLE_RATE / 2), MEL_BINS + 2)
    edges = 700.0 * (10 ** (mels / 2595.0) - 1)
    freqs = np.linspace(0, SAMPLE_RATE / 2, bins)
    bank = np.zeros((bins, MEL_BINS), dtype=np.float32)
    for m in range(MEL_BINS):
        lo, mid, hi = edges[m], edges[m + 1], edges[m + 2]
        up = (freqs - lo) / max(mid - lo, 1e-6)
        down = (hi - freqs) / max(hi - mid, 1e-6)
        bank[:, m] = np.maximum(0, np.minimum(up, down))
    return bank


def renamed(nodes, names):
    """The nodes with their tensors renamed: graphs below are written with the split layout's
    names and given the community layout's ones this way."""
    for n in nodes:
        n.input[:] = [names.get(x, x) for x in n.input]
        n.output[:] = [names.get(x, x) for x in n.output]
    return nodes


def write_mel_preprocessor(path, fixed, front=None, length_type=TensorProto.INT32):
    """Log-mel features as a real export computes them: 25 ms Hann windows every 10 ms, a
    512-point power spectrum (a convolution with windowed DFT kernels), 128 mel bands, each
    normalised over the phrase.
    front gives the layout's tensor names (signal, length, features, feature length)."""
    front = front or SPLIT_FRONT[0]
    names = dict(zip(SPLIT_FRONT[0], front))
    bins = N_FFT // 2 + 1
    n = np.arange(WINDOW)
    window = 0.5 - 0.5 * np.cos(2 * np.pi * n / WINDOW)
    k = np.arange(bins)[:, None]
    kernels = np.concatenate(
        [np.cos(2 * np.pi * k * n / N_FFT) * window, -np.sin(2 * np.pi * k * n / N_FFT) * window]
    ).astype(np.float32)[:, None, :]
    nodes = [
        node("Unsqueeze", ["audio_signal", "axis1"], ["signal3"]),
        node("Conv", ["signal3", "dft"], ["spectrum"], strides=[HOP],
             pads=[WINDOW // 2, WINDOW // 2]),
        node("Mul", ["spectrum", "spectrum"], ["squared"]),
        node("Reshape", ["squared", "halves_shape"], ["halves"]),
        node("ReduceSum", ["halves", "axis1"], ["power"], keepdims=0),
        node("Transpose", ["power"], ["power_t"], perm=[0, 2, 1]),
        node("MatMul", ["power_t", "mel_bank"], ["mel_t"]),
        node("Add", ["mel_t", "floor"], ["mel_floor"]),
        node("Log", ["mel_floor"], ["log_mel"]),
        # Each band to zero mean and unit variance over the phrase, as the real exports do.
        node("ReduceMean", ["log_mel"], ["band_mean"], axes=[1], keepdims=1),
        node("Sub", ["log_mel", "band_mean"], ["centred"]),
        node("Mul", ["centred", "centred"], ["centred_sq"]),
        node("ReduceMean", ["centred_sq"], ["band_var"], axes=[1], keepdims=1),
        node("Add", ["band_var", "floor"], ["band_var_floor"]),
        node("Sqrt", ["band_var_floor"], ["band_std"]),
        node("Div", ["centred", "band_std"], ["normalised"]),
        node("Transpose", ["normalised"], ["mel"], perm=[0, 2, 1]),
        node("Cast", ["audio_length"], ["len64"], to=TensorProto.INT64),
        node("Div", ["len64", "hop1"], ["frames64"]),
        node("Add", ["frames64", "one1"], ["frames_plus"]),
        node("Cast", ["frames_plus"], ["mel_length"], to=length_type),
    ]
    nodes = renamed(nodes, names)
    inits = [
        const("axis1", np.array([1], dtype=np.int64)),
        const("dft", kernels),
        const("halves_shape", np.array([1, 2, bins, -1], dtype=np.int64)),
        const("mel_bank", mel_filterbank()),
        const("floor", np.array(1e-5, dtype=np.float32)),
        const("hop1", np.array([HOP], dtype=np.int64)),
        const("one1", np.array([1], dtype=np.int64)),
    ]
    save(
        nodes,
        "mel_preprocessor",
        [
            tensor(front[0], TensorProto.FLOAT, [1, FIXED_SAMPLES if fixed else "samples"]),
            tensor(front[1], length_type, [1]),
        ],
        [
            tensor(front[2], TensorProto.FLOAT, [1, MEL_BINS, "frames"]),
            tensor(front[3], length_type, [1]),
        ],
        inits,
        path,
    )


class GraphBuilder:
    """Builds a graph of random weights. quantized writes every weight matrix as int8 with one
    scale, and its products the way a dynamically quantised export computes them: the
    activations quantised to uint8 on the fly, an integer matrix product, then the two scales."""

    def __init__(self, rng, quantized=False):
        self.rng = rng
        self.quantized = quantized
        self.nodes = []
        self.inits = {}
        self.count = 0

    def name(self, prefix):
        self.count += 1
        return f"{prefix}_{self.count}"

    def weight(self, name, shape, scale=None):
        if name not in self.inits:
            fan_in = shape[0] if len(shape) > 1 else 1
            scale = scale if scale is not None else 1.0 / np.sqrt(fan_in)
            values = (self.rng.standard_normal(shape) * scale).astype(np.float32)
            self.inits[name] = const(name, values)
        return name

    def constant(self, name, array):
        if name not in self.inits:
            self.inits[name] = const(name, array)
        return name

    def op(self, op, inputs, **attrs):
        out = self.name(op.lower())
        self.nodes.append(node(op, inputs, [out], **attrs))
        return out

    def quantized_weight(self, name, shape):
        """An int8 matrix and its scale, from the same random values weight() would draw."""
        if name not in self.inits:
            values = self.rng.standard_normal(shape) / np.sqrt(shape[0])
            scale = float(np.abs(values).max()) / 127.0
            self.inits[name] = const(name, np.round(values / scale).astype(np.int8))
            self.inits[name + "_scale"] = const(name + "_scale", np.array(scale, np.float32))
        return name, name + "_scale"

    def matmul(self, x, key, fan_in, fan_out):
        if not self.quantized:
            return self.op("MatMul", [x, self.weight(f"{key}_w", (fan_in, fan_out))])
        weight, weight_scale = self.quantized_weight(f"{key}_w", (fan_in, fan_out))
        xq, xs, xz = self.name("xq"), self.name("xs"), self.name("xz")
        self.nodes.append(node("DynamicQuantizeLinear", [x], [xq, xs, xz]))
        product = self.op("MatMulInteger", [xq, weight, xz])
        scale = self.op("Mul", [xs, weight_scale])
        return self.op("Mul", [self.op("Cast", [product], to=TensorProto.FLOAT), scale])

    def linear(self, x, key, fan_in, fan_out):
        y = self.matmul(x, key, fan_in, fan_out)
        return self.op("Add", [y, self.weight(f"{key}_b", (fan_out,), scale=0.01)])

    def swish(self, x):
        return self.op("Mul", [x, self.op("Sigmoid", [x])])

    def layer_norm(self, x, key):
        scale = self.constant(f"{key}_ln_scale", np.ones(ENC_WIDTH, dtype=np.float32))
        bias = self.constant(f"{key}_ln_bias", np.zeros(ENC_WIDTH, dtype=np.float32))
        return self.op("LayerNormalization", [x, scale, bias], axis=-1, epsilon=1e-5)


def conformer_layer(g, x):
    """One FastConformer block: half feed-forward, self-attention, convolution, half
    feed-forward, normalisation. Every layer shares one set of random weights, which keeps
    the file small while the compute stays that of 24 distinct layers."""
    half = g.constant("half", np.array(0.5 * BRANCH_GAIN, dtype=np.float32))
    gain = g.constant("branch_gain", np.array(BRANCH_GAIN, dtype=np.float32))

    def feed_forward(x, key):
        h = g.layer_norm(x, key)
        h = g.swish(g.linear(h, f"{key}_in", ENC_WIDTH, ENC_FF))
        h = g.linear(h, f"{key}_out", ENC_FF, ENC_WIDTH)
        return g.op("Add", [x, g.op("Mul", [h, half])])

    x = feed_forward(x, "ff1")

    head = ENC_WIDTH // ENC_HEADS
    h = g.layer_norm(x, "att")
    heads_shape = g.constant("heads_shape", np.array([1, -1, ENC_HEADS, head], dtype=np.int64))
    q, k, v = (
        g.op("Transpose",
             [g.op("Reshape", [g.linear(h, f"att_{p}", ENC_WIDTH, ENC_WIDTH), heads_shape])],
             perm=[0, 2, 1, 3])
        for p in "qkv"
    )
    scores = g.op("MatMul", [q, g.op("Transpose", [k], perm=[0, 1, 3, 2])])
    scale = g.constant("att_scale", np.array(1 / np.sqrt(head), dtype=np.float32))
    scores = g.op("Mul", [scores, scale])
    context = g.op("MatMul", [g.op("Softmax", [scores], axis=-1), v])
    width_shape = g.constant("width_shape", ints(1, -1, ENC_WIDTH))
    context = g.op("Reshape", [g.op("Transpose", [context], perm=[0, 2, 1, 3]), width_shape])
    x = g.op("Add", [x, g.op("Mul", [g.linear(context, "att_out", ENC_WIDTH, ENC_WIDTH), gain])])

    h = g.layer_norm(x, "conv")
    h = g.linear(h, "conv_pw1", ENC_WIDTH, 2 * ENC_WIDTH)
    split = g.constant("glu_split", np.array([ENC_WIDTH, ENC_WIDTH], dtype=np.int64))
    a, b = g.name("glu_a"), g.name("glu_b")
    g.nodes.append(node("Split", [h, split], [a, b], axis=-1))
    h = g.op("Mul", [a, g.op("Sigmoid", [b])])
    h = g.op("Transpose", [h], perm=[0, 2, 1])
    h = g.op("Conv", [h, g.weight("conv_dw", (ENC_WIDTH, 1, CONV_KERNEL), scale=1 / CONV_KERNEL)],
             group=ENC_WIDTH, pads=[CONV_KERNEL // 2, CONV_KERNEL // 2])
    h = g.swish(g.op("Transpose", [h], perm=[0, 2, 1]))
    x = g.op("Add", [x, g.op("Mul", [g.linear(h, "conv_pw2", ENC_WIDTH, ENC_WIDTH), gain])])

    x = feed_forward(x, "ff2")
    return g.layer_norm(x, "out")


def write_conformer_encoder(path, front=None, length_type=TensorProto.INT32, quantized=False):
    """front gives the layout's tensor names (features, length, encoded, encoded length)."""
    front = front or SPLIT_FRONT[1]
    g = GraphBuilder(np.random.default_rng(1), quantized)
    # 8× subsampling: pad the frames to a multiple of eight, stack each eight, project.
    t = g.op("Gather", [g.op("Shape", ["mel"]), g.constant("two", np.array(2, dtype=np.int64))],
             axis=0)
    sub = g.constant("sub", np.array(ENC_SUBSAMPLING, dtype=np.int64))
    sub_minus = g.constant("sub_minus", np.array(ENC_SUBSAMPLING - 1, dtype=np.int64))
    groups = g.op("Div", [g.op("Add", [t, sub_minus]), sub])
    missing = g.op("Sub", [g.op("Mul", [groups, sub]), t])
    pad = g.op("Reshape", [missing, g.constant("one1", ints(1))])
    zero = g.constant("zero1", ints(0))
    pads = g.op("Concat", [zero, zero, zero, zero, zero, pad], axis=0)
    padded = g.op("Pad", ["mel", pads])
    by_time = g.op("Transpose", [padded], perm=[0, 2, 1])
    stack_shape = g.constant("stack_shape", ints(1, -1, MEL_BINS * ENC_SUBSAMPLING))
    stacked = g.op("Reshape", [by_time, stack_shape])
    x = g.linear(stacked, "subsampling", MEL_BINS * ENC_SUBSAMPLING, ENC_WIDTH)
    for _ in range(ENC_LAYERS):
        x = conformer_layer(g, x)
    g.nodes.append(node("Transpose", [x], ["encoder"], perm=[0, 2, 1]))
    length64 = g.op("Cast", ["mel_length"], to=TensorProto.INT64)
    rounded_up = g.op("Add", [length64, g.constant("sub_minus1", ints(ENC_SUBSAMPLING - 1))])
    frames = g.op("Div", [rounded_up, g.constant("sub1", ints(ENC_SUBSAMPLING))])
    g.nodes.append(node("Cast", [frames], ["encoder_length"], to=length_type))
    save(
        renamed(g.nodes, dict(zip(SPLIT_FRONT[1], front))),
        "conformer_encoder",
        [
            tensor(front[0], TensorProto.FLOAT, [1, MEL_BINS, "frames"]),
            tensor(front[1], length_type, [1]),
        ],
        [
            tensor(front[2], TensorProto.FLOAT, [1, ENC_WIDTH, "steps"]),
            tensor(front[3], length_type, [1]),
        ],
        list(g.inits.values()),
        path,
    )


def prediction_network(g, h_out, c_out):
    """Embedding of the last token ("targets") and a two-layer LSTM of 640 units from the
    states h_in and c_in; returns the output as [1, 640, 1]."""
    embedding = g.weight("embedding", (VOCAB + 1, PRED), scale=0.1)
    embedded = g.op("Gather", [embedding, "targets"], axis=0)
    x = g.op("Transpose", [embedded], perm=[1, 0, 2])  # [1, 1, 640]: sequence, batch, features
    hs, cs = [], []
    for layer in range(2):
        index = g.constant(f"layer{layer}", np.array([layer], dtype=np.int64))
        h0 = g.op("Gather", ["h_in", index], axis=0)
        c0 = g.op("Gather", ["c_in", index], axis=0)
        y, yh, yc = g.name("y"), g.name("yh"), g.name("yc")
        w = g.weight(f"lstm{layer}_w", (1, 4 * PRED, PRED), scale=0.04)
        r = g.weight(f"lstm{layer}_r", (1, 4 * PRED, PRED), scale=0.04)
        b = g.weight(f"lstm{layer}_b", (1, 8 * PRED), scale=0.01)
        g.nodes.append(node("LSTM", [x, w, r, b, "", h0, c0], [y, yh, yc], hidden_size=PRED))
        x = g.op("Squeeze", [y, g.constant("axis1", np.array([1], dtype=np.int64))])
        hs.append(yh)
        cs.append(yc)
    g.nodes.append(node("Concat", hs, [h_out], axis=0))
    g.nodes.append(node("Concat", cs, [c_out], axis=0))
    return g.op("Transpose", [x], perm=[1, 2, 0])


def joint_scores(g, encoder_step, decoder_step):
    """Encoder and prediction projections to 640, ReLU, and scores over 8193 tokens and 5
    durations, as [1, 8198]."""
    enc = g.op("Reshape", [encoder_step, g.constant("enc_shape", ints(1, ENC_WIDTH))])
    dec = g.op("Reshape", [decoder_step, g.constant("dec_shape", ints(1, PRED))])
    projected = [
        g.linear(enc, "joint_enc", ENC_WIDTH, PRED),
        g.linear(dec, "joint_dec", PRED, PRED),
    ]
    hidden = g.op("Relu", [g.op("Add", projected)])
    scores = g.linear(hidden, "joint_out", PRED, VOCAB + 1 + DURATIONS)
    return g.op("Add", [scores, g.constant("speech_like_bias", speech_like_bias(g))])


# Random weights alone make a joint that emits a token at nearly every step (blank is one
# choice among 8193) and often stays on a frame; a real model emits blank most of the time
# and moves on by a frame or two. The benchmarks would then time far more prediction steps
# than speech causes, so the joint gets biases that make it decide like a real one.
BLANK_SHARE = 0.5  # steps that emit nothing
DURATION_BIAS = [-20.0, 20.0, 20.0, -20.0, -20.0]  # move on by one or two frames


def speech_like_bias(g):
    """A bias for the joint's scores: blank raised until it wins BLANK_SHARE of the steps on
    simulated inputs (encoder frames as they leave the final normalisation, small prediction
    outputs), the durations as DURATION_BIAS. Reads the joint's weights from g."""
    def values(name):
        w = numpy_helper.to_array(g.inits[name])
        if w.dtype == np.int8:
            w = w.astype(np.float32) * numpy_helper.to_array(g.inits[name + "_scale"])
        return w

    rng = np.random.default_rng(4)
    enc = rng.standard_normal((512, ENC_WIDTH)).astype(np.float32)
    dec = (rng.standard_normal((512, PRED)) * 0.2).astype(np.float32)
    hidden = np.maximum(0, enc @ values("joint_enc_w") + values("joint_enc_b") +
                        dec @ values("joint_dec_w") + values("joint_dec_b"))
    scores = hidden @ values("joint_out_w") + values("joint_out_b")
    margin = scores[:, :VOCAB].max(axis=1) - scores[:, VOCAB]
    bias = np.zeros(VOCAB + 1 + DURATIONS, dtype=np.float32)
    bias[VOCAB] = np.quantile(margin, BLANK_SHARE)
    bias[VOCAB + 1:] = DURATION_BIAS
    return bias


def write_lstm_decoder(path):
    g = GraphBuilder(np.random.default_rng(2))
    decoder = prediction_network(g, "h_out", "c_out")
    g.nodes.append(node("Identity", [decoder], ["decoder"]))
    g.op("Identity", ["target_length"])
    save(
        g.nodes,
        "lstm_decoder",
        [
            tensor("targets", TensorProto.INT32, [1, 1]),
            tensor("target_length", TensorProto.INT32, [1]),
            tensor("h_in", TensorProto.FLOAT, list(STATE)),
            tensor("c_in", TensorProto.FLOAT, list(STATE)),
        ],
        [
            tensor("decoder", TensorProto.FLOAT, [1, PRED, 1]),
            tensor("h_out", TensorProto.FLOAT, list(STATE)),
            tensor("c_out", TensorProto.FLOAT, list(STATE)),
        ],
        list(g.inits.values()),
        path,
    )


def write_dense_joint(path):
    """The joint's scores and the best token and duration of them."""
    g = GraphBuilder(np.random.default_rng(3))
    scores = joint_scores(g, "encoder_step", "decoder_step")
    token_scores, duration_scores = g.name("tokens"), g.name("durations")
    split = g.constant("score_split", ints(VOCAB + 1, DURATIONS))
    g.nodes.append(node("Split", [scores, split], [token_scores, duration_scores], axis=-1))
    token = g.op("ArgMax", [token_scores], axis=-1, keepdims=0)
    frames = g.op("ArgMax", [duration_scores], axis=-1, keepdims=0)
    g.nodes.append(node("Cast", [token], ["token_id"], to=TensorProto.INT32))
    g.nodes.append(node("Cast", [frames], ["duration"], to=TensorProto.INT32))
    save(
        g.nodes,
        "dense_joint",
        [
            tensor("encoder_step", TensorProto.FLOAT, [1, ENC_WIDTH, 1]),
            tensor("decoder_step", TensorProto.FLOAT, [1, PRED, 1]),
        ],
        [tensor("token_id", TensorProto.INT32, [1]), tensor("duration", TensorProto.INT32, [1])],
        list(g.inits.values()),
        path,
    )


def write_fused_lstm_joint(path):
    """The community layout's decoder_joint at real size: the prediction network and the joint
    in one int8 network, giving all the scores; the prediction network stays in float, as a
    dynamically quantised export leaves its LSTM."""
    g = GraphBuilder(np.random.default_rng(2), quantized=True)
    decoder = prediction_network(g, "output_states_1", "output_states_2")
    scores = joint_scores(g, "encoder_outputs", decoder)
    g.nodes.append(node("Reshape", [scores, g.constant("scores_shape", ints(1, 1, 1, -1))],
                        ["outputs"]))
    g.nodes.append(node("Identity", ["target_length"], ["prednet_lengths"]))
    save(
        renamed(g.nodes, {"h_in": "input_states_1", "c_in": "input_states_2"}),
        "decoder_joint",
        [
            tensor("encoder_outputs", TensorProto.FLOAT, [1, ENC_WIDTH, 1]),
            tensor("targets", TensorProto.INT32, [1, 1]),
            tensor("target_length", TensorProto.INT32, [1]),
            tensor("input_states_1", TensorProto.FLOAT, list(STATE)),
            tensor("input_states_2", TensorProto.FLOAT, list(STATE)),
        ],
        [
            tensor("outputs", TensorProto.FLOAT, [1, 1, 1, VOCAB + 1 + DURATIONS]),
            tensor("prednet_lengths", TensorProto.INT32, [1]),
            tensor("output_states_1", TensorProto.FLOAT, list(STATE)),
            tensor("output_states_2", TensorProto.FLOAT, list(STATE)),
        ],
        list(g.inits.values()),
        path,
    )


def write_bench_fixtures(out):
    """Networks of a real model's size. Two folders in the split layout sharing one encoder,
    decoder and joint: "realistic" takes phrases at their real length, "realistic-fixed" pads
    them to 15 s. "realistic-int8" holds the same sizes in the community layout, int8."""
    dynamic = os.path.join(out, "realistic")
    fixed = os.path.join(out, "realistic-fixed")
    os.makedirs(dynamic, exist_ok=True)
    os.makedirs(fixed, exist_ok=True)
    write_mel_preprocessor(os.path.join(dynamic, "Preprocessor.onnx"), fixed=False)
    write_mel_preprocessor(os.path.join(fixed, "Preprocessor.onnx"), fixed=True)
    write_conformer_encoder(os.path.join(dynamic, "Encoder.onnx"))
    write_lstm_decoder(os.path.join(dynamic, "Decoder.onnx"))
    write_dense_joint(os.path.join(dynamic, "JointDecisionv3.onnx"))
    with open(os.path.join(dynamic, "parakeet_v3_vocab.json"), "w", encoding="utf-8") as f:
        json.dump({str(i): f"\u2581w{i}" for i in range(VOCAB)}, f)
    for name in ("Encoder.onnx", "Decoder.onnx", "JointDecisionv3.onnx", "parakeet_v3_vocab.json"):
        target = os.path.join(fixed, name)
        if os.path.lexists(target):
            os.remove(target)
        os.symlink(os.path.join("..", "realistic", name), target)

    int8 = os.path.join(out, "realistic-int8")
    os.makedirs(int8, exist_ok=True)
    write_mel_preprocessor(os.path.join(int8, "nemo128.onnx"), False, COMMUNITY_FRONT[0],
                           TensorProto.INT64)
    write_conformer_encoder(os.path.join(int8, "encoder-model.int8.onnx"), COMMUNITY_FRONT[1],
                            TensorProto.INT64, quantized=True)
    write_fused_lstm_joint(os.path.join(int8, "decoder_joint-model.int8.onnx"))
    with open(os.path.join(int8, "vocab.txt"), "w", encoding="utf-8") as f:
        for i in range(VOCAB):
            f.write(f"\u2581w{i} {i}\n")
        f.write(f"<blk> {VOCAB}\n")


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("out", help="folder to write into (created if needed)")
    parser.add_argument("--bench", action="store_true", help="write the realistic-size networks")
    args = parser.parse_args()
    if args.bench:
        write_bench_fixtures(args.out)
    else:
        write_test_fixtures(args.out)
    # Marks a complete run for build systems; the benchmarks' stamp names the version of their
    # networks, so that a folder holding an older set is written anew.
    with open(os.path.join(args.out, "bench.stamp" if args.bench else "fixtures.stamp"), "w") as f:
        f.write(f"complete {BENCH_VERSION}\n" if args.bench else "complete\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
