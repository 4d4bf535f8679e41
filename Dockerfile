# Builds POST and runs it on the simulated board. The tests: docker run --rm IMAGE tools/run-tests
FROM debian:12
RUN apt-get update && apt-get install -y --no-install-recommends \
      ca-certificates clang clang-format-14 clang-tidy-14 cmake g++ g++-multilib git googletest jq libasan8 libcli11-dev \
      libubsan1 libxml2-utils ninja-build nlohmann-json3-dev perl python3-jsonschema && \
    rm -rf /var/lib/apt/lists/*
WORKDIR /post-source
COPY . .
RUN tools/run-post -- -s
# The tests of both word sizes are built in a layer of their own.
RUN cmake --preset board && cmake --build --preset board && cmake --preset host && cmake --build --preset host
CMD ["tools/run-post"]
