"""Random call sequences agree with the model in every answer."""

import random

from call_sequence import CallSequence


def test_every_answer_is_that_of_the_model():
    for seed in range(250):
        sequence = CallSequence(random.Random(seed))
        for _ in range(15):
            sequence.step()
            sequence.read()
        sequence.index.close()
