#!/usr/bin/env bash
# What CONTRIBUTING.md asks of a commit, of all since this rule exists: a body where more than three
# files change, and a subject that tells of one change. Merges are left out; without a history to
# look at (an archive, a shallow clone) it says so and all is well.
set -euo pipefail
cd "$(dirname "${BASH_SOURCE[0]}")/../.."

since=$({ git log --diff-filter=A --format=%H -- tools/lint/commits.sh 2>/dev/null || true; } | tail -n 1)
if [ -z "$since" ] || [ "$(git rev-parse --is-shallow-repository)" = true ]; then
    echo "commits: no history here to look at"
    exit 0
fi

status=0
complain() {
    echo "commits: $(git log -1 --format='%h "%s"' "$1"): $2" >&2
    status=1
}
for commit in $(git rev-list --no-merges "$since..HEAD"); do
    subject=$(git log -1 --format=%s "$commit")
    [[ $subject != *'; '* ]] || complain "$commit" "joins two changes"
    [ -n "$(git log -1 --format=%b "$commit")" ] ||
        [ "$(git show --format= --name-only "$commit" | wc -l)" -le 3 ] ||
        complain "$commit" "more than three files, and no word why"
done
exit $status
