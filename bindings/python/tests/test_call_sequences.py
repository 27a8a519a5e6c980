"""Random call sequences agree with the model in every answer."""

from hypothesis import HealthCheck, given, settings, strategies as st

from call_sequence import CallSequence


@given(rng=st.randoms(use_true_random=False))
@settings(max_examples=250, deadline=None, derandomize=True,
          suppress_health_check=list(HealthCheck))
def test_every_answer_is_that_of_the_model(rng):
    sequence = CallSequence(rng)
    for _ in range(15):
        sequence.step()
        sequence.read()
    sequence.index.close()
