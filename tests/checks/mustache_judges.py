"""Two independent renderers of mustache templates: pystache, and Ruby's mustache.

A case is a template, its data, and perhaps partials. What a renderer refuses gives the name of the error: why.
"""

import json
import os
import subprocess
import sys

import pystache

RUBY = r"""
require "json"
require "mustache"

class FromTable < Mustache
  attr_accessor :partials

  def partial(name)
    partials.fetch(name.to_s, "")
  end
end

puts JSON.generate(JSON.parse(STDIN.read).map { |tested|
  begin
    view = FromTable.new
    view.partials = tested.fetch("partials", {})
    view.template = tested["template"]
    # Pushed, not passed on: what "render" is given may only be an object.
    view.context.push(tested["data"])
    view.render
  rescue StandardError, SystemStackError => error
    "#{error.class}: #{error.message}"
  end
})
"""


def render_with_pystache(case):
    try:
        return pystache.Renderer(partials=case.get("partials", {})).render(case["template"], case["data"])
    except Exception as error:  # whatever it raises is a result of its own
        return f"{type(error).__name__}: {error}"


def render_all_with_ruby(cases):
    done = subprocess.run(["/usr/bin/ruby", "-e", RUBY], input=json.dumps(cases), capture_output=True, text=True,
                          encoding="utf-8", env=dict(os.environ, LC_ALL="C.UTF-8"))
    if done.returncode != 0:
        sys.exit(f"ruby's mustache cannot be run: {done.stderr.strip()}")
    return json.loads(done.stdout)
