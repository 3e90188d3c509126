"""Processors that share one mutex, as a closed queueing network: each computes for a while (it thinks),
then needs the mutex for a while (it is served), and begins anew. All times in seconds, or all in any other
unit; rates are per that unit."""
import collections
import heapq
import random

Result = collections.namedtuple("Result", "rate wait")  # rounds per unit of time; mean wait of a round


def mean_value_analysis(processors, think, demand):
    """Exact for exponential times, whatever the order in which the mutex is given to those that wait.

    think: computed in a round without the mutex; demand: the mutex's time in a round.
    """
    queued, rate, response = 0.0, 0.0, demand
    for customers in range(1, processors + 1):
        response = demand * (1 + queued)
        rate = customers / (think + response)
        queued = rate * response
    return Result(rate, response - demand)


def upper_bound(processors, think, demand):
    """No distribution of the times allows a higher rate: nobody ever waits, or the mutex is never free."""
    return min(processors / (think + demand), 1 / demand)


def simulate(processors, think, service, rounds=200_000, seed=1, exponential=True):
    """The same, event by event, for exponential times or for a service that always takes as long."""
    chance = random.Random(seed)
    draw_think = lambda: chance.expovariate(1 / think) if think > 0 else 0.0
    draw_service = (lambda: chance.expovariate(1 / service)) if exponential else (lambda: service)
    arrivals = [(draw_think(), number) for number in range(processors)]
    heapq.heapify(arrivals)
    free, waited, began = 0.0, 0.0, 0.0
    warm = rounds // 10
    for served in range(rounds + warm):
        if served == warm:
            waited, began = 0.0, free
        arrival, number = heapq.heappop(arrivals)
        start = max(arrival, free)
        waited += start - arrival
        free = start + draw_service()
        heapq.heappush(arrivals, (free + draw_think(), number))
    return Result(rounds / (free - began), waited / rounds)


def simulate_patience(processors, think, service, patience, tries, wake, rounds=100_000, seed=1):
    """Waiting as the runtime does: who finds the mutex taken stays away for some time, and after a number
    of tries sleeps and is woken when it is free. Whoever comes when it is free gets it."""
    chance = random.Random(seed)
    draw_think = lambda: chance.expovariate(1 / think) if think > 0 else 0.0
    attempts = [(draw_think(), number, 0, None) for number in range(processors)]
    heapq.heapify(attempts)
    free, waited, began, served = 0.0, 0.0, 0.0, 0
    warm = rounds // 10
    while served < rounds + warm:
        now, number, tried, first = heapq.heappop(attempts)
        first = now if first is None else first
        if now < free:
            again = now + patience if tried + 1 < tries else free + wake
            heapq.heappush(attempts, (again, number, tried + 1, first))
            continue
        if served == warm:
            waited, began = 0.0, now
        served += 1
        waited += now - first
        free = now + chance.expovariate(1 / service)
        heapq.heappush(attempts, (free + draw_think(), number, 0, None))
    return Result(rounds / (free - began), waited / rounds)
